#include "rpc_transport.h"

namespace vantorelle {

RpcTransport::~RpcTransport() = default;

} // namespace vantorelle
