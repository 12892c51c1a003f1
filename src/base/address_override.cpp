#include "address_override.h"

namespace vantorelle {

bool addressOverridesAllowed()
{
#ifdef VANTORELLE_ADDRESS_OVERRIDES
    return true;
#else
    return false;
#endif
}

QString addressOverride(const char* variable)
{
    return addressOverridesAllowed() ? qEnvironmentVariable(variable) : QString();
}

} // namespace vantorelle
