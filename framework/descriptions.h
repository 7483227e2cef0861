#pragma once

// Description records that the framework hands to a converter. Only LevelDesc
// is read by the Leitch plug-in; the others exist so that the converter's table
// of list operations can be declared.

struct LevelDesc {
    int level = 0;         // the router's own (host) level number
    int sources = 0;       // number of sources of the level
    int destinations = 0;  // number of destinations of the level
};

struct InputOutputDesc {};
struct ParamGroupDesc {};
struct ParameterDesc {};
struct SalvoGroupDesc {};
struct SalvoDesc {};
struct VTableDesc {};
struct SourceDestinationDesc {};
struct VLevelDesc {};
struct VCategoryDesc {};
struct AlarmDesc {};
