// The plug-in's one entry point: the host calls it once and owns the family.
#include "plugin/QVeltraXRayKORUXPlugIn.h"

extern "C" Q_DECL_EXPORT QVeltraHardwareFamily* getVeltraHardware()
{
    return new QVeltraXRayKORUXPlugIn();
}
