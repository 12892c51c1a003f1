// The update manifest comes from the network: parsing must never crash, and a manifest it
// accepts with a package must hold a package that passes its own rules.
#include "fuzz_require.h"
#include "update_manifest.h"

#include <cstdint>

using vantorelle::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char*>(data), qsizetype(size));
    const vantorelle::UpdateContext context{QStringLiteral("1.0.1"), QStringLiteral("30.2.3"),
                                            QStringLiteral("windows-x64")};
    const vantorelle::UpdateManifest manifest = vantorelle::parseUpdateManifest(body, context);
    if (manifest.ok && manifest.newer)
        require(manifest.package.isValid() && manifest.package.size >= 0 &&
                vantorelle::isAllowedUpdateAddress(manifest.package.url));
    // The version text doubles as comparison input; the order must be antisymmetric.
    const QString text = QString::fromUtf8(body.left(64));
    require(vantorelle::compareVersions(text, context.currentVersion) ==
            -vantorelle::compareVersions(context.currentVersion, text));
    return 0;
}
