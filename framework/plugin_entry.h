#pragma once

// Entry points a converter library exports, looked up by these plain names.
class Interface;
class ProtocolConverter;

extern "C" {
using CreateFunction = ProtocolConverter* (*)(Interface* link);
using DestroyFunction = void (*)(ProtocolConverter* object);
}
