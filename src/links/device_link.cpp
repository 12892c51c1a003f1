#include "device_link.h"

namespace vantorelle {

DeviceLink::~DeviceLink() = default;

} // namespace vantorelle
