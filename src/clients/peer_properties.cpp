// The failure line of a peer property access.
#include "peer_properties.h"

#include "log.h"

namespace VideoDaemon
{

void PeerProperties::LogFailure(
    const char* format, const FunctionSignature& caller, const char* label, const std::string& error)
{
    Log::Error(format, caller.Text().c_str(), label, error.c_str());
}

} // namespace VideoDaemon
