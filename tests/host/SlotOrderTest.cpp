// The framework's binary interface is the order of its virtual slots. This
// test reads the virtual tables the framework library exports and checks
// them, slot by slot, against the list a host is built against: each slot
// must hold the function of that name, found by its mangled symbol. It does
// not use the header's declarations, so a slot moved or inserted there
// fails here (checked so: one virtual function inserted after
// deleteFromVector() fails the family's test). Slots appended after the
// listed ones are allowed.
#include <dlfcn.h>
#include <link.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/VeltraXRayHardware.h"

namespace {

// Itanium C++ ABI mangling of a member function name, enough for this list.
std::string member(
    const std::string& owner, const std::string& name, const std::string& parameters, bool isConst = false)
{
    return "_ZN" + std::string(isConst ? "K" : "") + std::to_string(owner.size()) + owner
        + std::to_string(name.size()) + name + "E" + parameters;
}

// The slots of QObject, in the order its own class gives them: the three
// meta-object functions overridden by moc for each class, the destructor
// (complete and deleting object: two slots), and the six event functions.
std::vector<std::string> qobjectSlots(const std::string& owner)
{
    return {
        member(owner, "metaObject", "v", true),
        member(owner, "qt_metacast", "PKc"),
        member(owner, "qt_metacall", "N11QMetaObject4CallEiPPv"),
        "_ZN" + std::to_string(owner.size()) + owner + "D1Ev",
        "_ZN" + std::to_string(owner.size()) + owner + "D0Ev",
        "_ZN7QObject5eventEP6QEvent",
        "_ZN7QObject11eventFilterEPS_P6QEvent",
        "_ZN7QObject10timerEventEP11QTimerEvent",
        "_ZN7QObject10childEventEP11QChildEvent",
        "_ZN7QObject11customEventEP6QEvent",
        "_ZN7QObject13connectNotifyERK11QMetaMethod",
        "_ZN7QObject16disconnectNotifyERK11QMetaMethod",
    };
}

std::vector<std::string> familySlots()
{
    const std::string c = "QVeltraHardwareFamily";
    std::vector<std::string> order = qobjectSlots(c);
    for (const std::string& symbol : {
             member(c, "initializeVeltraHardwareFamily", "v"),
             member(c, "deleteFromVector", "v"),
             member(c, "sensorFamily", "v"),
             member(c, "hardwareUnitVector", "v", true),
             member(c, "gotoStatus", "14hardwareStatus"),
             member(c, "gotoUnitStatus", "7QString14hardwareStatus"),
             member(c, "setParameter", "7QString8QVariant"),
             member(c, "forwardToStatusChanged", "14hardwareStatus"),
         })
        order.push_back(symbol);
    return order;
}

std::vector<std::string> unitSlots()
{
    const std::string c = "QVeltraHardwareUnit";
    std::vector<std::string> order = qobjectSlots(c);
    for (const std::string& symbol : {
             member(c, "initializeVeltraHardware", "v"),
             member(c, "BINImageSize", "v"),
             member(c, "imageSize", "v"),
             member(c, "RAWImageSize", "v"),
             member(c, "imageBitPerPixel", "v"),
             member(c, "RAWBitPerPixel", "v"),
             member(c, "imageResolution", "v"),
         })
        order.push_back(symbol);
    // Fourteen triples: setter, resetter, getter.
    const struct {
        const char* value;
        const char* parameter;
    } triples[] = {
        { "Family", "P21QVeltraHardwareFamily" },
        { "Generator", "P16QVeltraGenerator" },
        { "Size", "12hardwareSize" },
        { "Technology", "18hardwareTechnology" },
        { "Protocol", "16hardwareProtocol" },
        { "Status", "14hardwareStatus" },
        { "Model", "7QString" },
        { "Serial", "7QString" },
        { "SensorSerial", "7QString" },
        { "BoardSerial", "7QString" },
        { "Firmware", "7QString" },
        { "Oscilloscope", "7QString" },
        { "BinaryImage", "6QImage" },
        { "BlackImage", "6QImage" },
    };
    for (const auto& triple : triples) {
        std::string getter = triple.value;
        getter[0] = static_cast<char>(std::tolower(getter[0]));
        order.push_back(member(c, std::string("set") + triple.value, triple.parameter));
        order.push_back(member(c, std::string("reset") + triple.value, "v"));
        order.push_back(member(c, getter, "v", true));
    }
    order.push_back(member(c, "gotoStatus", "14hardwareStatus"));
    return order;
}

// The slots of the exported virtual table of a class: the table's symbol
// with its size, past the offset to top and the type information.
std::vector<void*> virtualTable(const std::string& owner)
{
    const std::string symbol = "_ZTV" + std::to_string(owner.size()) + owner;
    void* table = dlsym(RTLD_DEFAULT, symbol.c_str());
    if (!table)
        return {};
    Dl_info info = {};
    void* symbolEntry = nullptr;
    if (!dladdr1(table, &info, &symbolEntry, RTLD_DL_SYMENT) || !symbolEntry)
        return {};
    const auto* entry = static_cast<const ElfW(Sym)*>(symbolEntry);
    if (!entry)
        return {};
    void* const* words = static_cast<void* const*>(table);
    const size_t count = entry->st_size / sizeof(void*);
    return std::vector<void*>(words + 2, words + count);
}

void expectSlots(const std::string& owner, const std::vector<std::string>& expected)
{
    const std::vector<void*> table = virtualTable(owner);
    ASSERT_FALSE(table.empty()) << "no exported virtual table for " << owner;
    ASSERT_GE(table.size(), expected.size()) << owner << " has fewer virtual slots than listed";
    for (size_t slot = 0; slot < expected.size(); ++slot) {
        void* function = dlsym(RTLD_DEFAULT, expected[slot].c_str());
        ASSERT_NE(function, nullptr) << "no symbol " << expected[slot];
        Dl_info held = {};
        const char* heldName = dladdr(table[slot], &held) && held.dli_sname ? held.dli_sname : "?";
        EXPECT_EQ(table[slot], function)
            << owner << " slot " << slot << ": expected " << expected[slot] << ", holds " << heldName;
    }
}

} // namespace

TEST(SlotOrder, FamilyHasTheEightSlotsOfTheContractAfterQObjects)
{
    expectSlots("QVeltraHardwareFamily", familySlots());
}

TEST(SlotOrder, UnitHasTheFiftySlotsOfTheContractAfterQObjects)
{
    expectSlots("QVeltraHardwareUnit", unitSlots());
}

TEST(SlotOrder, GeneratorHasQObjectsSlotsOnly)
{
    expectSlots("QVeltraGenerator", qobjectSlots("QVeltraGenerator"));
    EXPECT_EQ(virtualTable("QVeltraGenerator").size(), qobjectSlots("QVeltraGenerator").size());
}

// The list itself: eight and fifty slots after QObject's twelve.
TEST(SlotOrder, ContractListsHaveTheirLengths)
{
    EXPECT_EQ(familySlots().size(), 12u + 8u);
    EXPECT_EQ(unitSlots().size(), 12u + 50u);
}
