// The unit's private operations, reached by the tests that check them one by
// one.
#pragma once

#include "plugin/QVeltraXRayKORUXPlugIn.h"
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

struct KoruxUnitAccess {
    using Unit = QVeltraXRayKORUXPlugInUnit;
    static int ACECoefficient(Unit& unit) { return unit.ACECoefficient(); }
    static bool readFlash(Unit& unit, unsigned char* buffer, unsigned short length, unsigned int address)
    {
        return unit.readFlash(buffer, length, address);
    }
    static bool writeFlash(Unit& unit, unsigned char* data, int size, unsigned int address, bool erase, bool initPort)
    {
        return unit.writeFlash(data, size, address, erase, initPort);
    }
    static bool eraseSector(Unit& unit, int address) { return unit.eraseSector(address); }
    static bool eraseFlash(Unit& unit, unsigned int address, int size) { return unit.eraseFlash(address, size); }
    static bool resetFlash(Unit& unit) { return unit.resetFlash(); }
    static bool isFlashBusy(Unit& unit, bool* busy) { return unit.isFlashBusy(busy); }
    static int32_t aceValue(Unit& unit) { return unit.aceValue; }
    static int32_t samplesAboveThreshold(Unit& unit) { return unit.samplesAboveThreshold; }
    static bool imageReady(Unit& unit) { return unit.imageReady; }
    static bool stopRequested(Unit& unit) { return unit.stopRequested; }
    static bool readOscilloscope(Unit& unit) { return unit.readOscilloscope(); }
    static bool saveAcquisition(Unit& unit) { return unit.saveAcquisition(); }
};

// The family's status as if the cycle had brought it there, and its private
// per-unit wrappers.
struct KoruxFamilyAccess {
    using Family = QVeltraXRayKORUXPlugIn;
    static void setStatus(Family& family, hardwareStatus status) { family.status_ = status; }
    // A key gone from the parameter store, as a host's store may lose one.
    static void removeParameter(Family& family, const QString& key) { family.parameters_.remove(key); }
    static bool increaseShootCounter(Family& family, long index) { return family.increaseShootCounter(index); }
    static bool getShootCounter(Family& family, long index, unsigned int* value)
    {
        return family.getShootCounter(index, value);
    }
    static bool setShootCounter(Family& family, long index, unsigned int value)
    {
        return family.setShootCounter(index, value);
    }
    static bool readSerialNumber(Family& family, long index, QString& serial)
    {
        return family.readSerialNumber(index, serial);
    }
};
