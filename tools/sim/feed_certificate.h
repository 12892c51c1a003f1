#pragma once

namespace vantorelle::sim {

// The self-signed certificate (EC P-256, CN 127.0.0.1, valid for a century) and private key the
// simulated device presents on its feed port, in PEM form.
extern const char kFeedCertificatePem[];
extern const char kFeedPrivateKeyPem[];

} // namespace vantorelle::sim
