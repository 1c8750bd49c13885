// HTTP downloads. The downloader class is built on this setting; it lives here, beside the
// code that reads it.

#include "platform/config/ConfigBoolValue.h"

namespace {

// Some radio stations still serve broken certificates or only old TLS; true lets the items
// that ask for it play anyway. Deployments that want strict TLS set it false.
ConfigBoolValue sAllowInsecureTls("net/allow_insecure_tls", true);

} // namespace
