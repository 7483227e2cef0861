// The framework calls a converter through its tables of virtual operations, so
// each operation's slot number is part of the binary contract. These tests pin
// every slot. A pointer to a virtual member function holds the slot's byte
// offset in the table: in the generic Itanium C++ ABI as 1 + the offset, the
// low bit telling it from a function's address; in the ARM variant (32- and
// 64-bit ARM, where function addresses may be odd) as the offset itself, with
// the flag moved to the low bit of the second word, the this-adjustment.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "framework/command_driver.h"
#include "framework/interface.h"
#include "framework/protocol_converter.h"

namespace {

template <typename MemberFunction>
std::ptrdiff_t slot(MemberFunction f) {
    static_assert(sizeof(f) == 2 * sizeof(std::ptrdiff_t), "Itanium member function pointer");
    std::ptrdiff_t words[2];
    std::memcpy(words, &f, sizeof words);
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_EQ(1, words[1] & 1) << "not a virtual function";
    const std::ptrdiff_t offset = words[0];
#else
    EXPECT_EQ(1, words[0] % static_cast<std::ptrdiff_t>(sizeof(void*))) << "not a virtual function";
    const std::ptrdiff_t offset = words[0] - 1;
#endif
    return offset / static_cast<std::ptrdiff_t>(sizeof(void*));
}

using PC = ProtocolConverter;
using IntMap = std::map<int, int>;

TEST(VtableLayout, ProtocolOperationsFollowTheTwoDestructors) {
    EXPECT_EQ(2, slot(&Protocol::ReceiveData));
    EXPECT_EQ(3, slot(&Protocol::ReceiveDataImmediate));
    EXPECT_EQ(4, slot(&Protocol::SetInterface));
    EXPECT_EQ(4, slot(&PC::SetInterface));
}

TEST(VtableLayout, ConverterOperationsInFrameworkOrder) {
    EXPECT_EQ(5, slot(&PC::LoadConfig));
    EXPECT_EQ(6, slot(&PC::GetVersion));
    EXPECT_EQ(7, slot(&PC::SetCommandDriver));
    EXPECT_EQ(8, slot(&PC::LevelList));
    EXPECT_EQ(9, slot(&PC::InputList));
    EXPECT_EQ(10, slot(&PC::OutputList));
    EXPECT_EQ(11, slot(&PC::ParamGroupList));
    EXPECT_EQ(12, slot(&PC::ParameterList));
    EXPECT_EQ(13, slot(&PC::SalvoGroupList));
    EXPECT_EQ(14, slot(&PC::SalvoList));
    EXPECT_EQ(15, slot(&PC::VTableList));
    EXPECT_EQ(16, slot(&PC::SourceList));
    EXPECT_EQ(17, slot(&PC::DestinationList));
    EXPECT_EQ(18, slot(&PC::VLevelList));
    EXPECT_EQ(19, slot(&PC::VCategoryList));
    EXPECT_EQ(20, slot(&PC::Alarm));
    EXPECT_EQ(21, slot(&PC::Crosspoint));
    EXPECT_EQ(22, slot(&PC::CrosspointLock));
    EXPECT_EQ(23, slot(static_cast<void (PC::*)(int, int, int)>(&PC::VirtualCrosspoint)));
    EXPECT_EQ(24, slot(static_cast<void (PC::*)(int, IntMap&, int)>(&PC::VirtualCrosspoint)));
    EXPECT_EQ(25, slot(static_cast<void (PC::*)(int, int, int)>(&PC::VirtualCrosspointLock)));
    EXPECT_EQ(26, slot(static_cast<void (PC::*)(int, int, IntMap&)>(&PC::VirtualCrosspointLock)));
    EXPECT_EQ(27, slot(&PC::Parameter));
    EXPECT_EQ(28, slot(&PC::ParameterUnknown));
    EXPECT_EQ(29, slot(&PC::ParameterLock));
    EXPECT_EQ(30, slot(&PC::Salvo));
    EXPECT_EQ(31, slot(&PC::SalvoLock));
    EXPECT_EQ(32, slot(&PC::InputStatus));
    EXPECT_EQ(33, slot(&PC::OutputStatus));
    EXPECT_EQ(34, slot(static_cast<void (PC::*)(int, int, int)>(&PC::SourceStatus)));
    EXPECT_EQ(35, slot(static_cast<void (PC::*)(int, int, IntMap&)>(&PC::SourceStatus)));
    EXPECT_EQ(36, slot(static_cast<void (PC::*)(int, int, int)>(&PC::DestinationStatus)));
    EXPECT_EQ(37, slot(static_cast<void (PC::*)(int, int, IntMap&)>(&PC::DestinationStatus)));
    EXPECT_EQ(38, slot(&PC::SalvoSignalStatus));
}

TEST(VtableLayout, InterfaceSendDataFollowsTwoDestructorsAndTwoOperations) {
    EXPECT_EQ(4, slot(&Interface::SendData));
}

TEST(VtableLayout, CommandDriverHasNoDestructorInFront) {
    EXPECT_EQ(0, slot(&CommandDriver::TakePresets));
    EXPECT_EQ(1, slot(&CommandDriver::ClearPresets));
    EXPECT_EQ(2, slot(&CommandDriver::PresetCrosspoint));
    EXPECT_EQ(7, slot(&CommandDriver::LockCrosspoint));
}

}  // namespace
