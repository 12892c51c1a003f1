// Feed envelopes as they arrive from a device or the portal: bytes, parsed as JSON, applied to
// a fresh model. The snapshot line must always read back as the model's own snapshot, and the
// same envelope applied twice must change nothing the second time.
#include "fuzz_require.h"
#include "live_data.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <cstdint>

using vantorelle::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes =
        QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const QJsonDocument doc = QJsonDocument::fromJson(bytes);
    if (!doc.isObject())
        return 0;

    vantorelle::LiveData live;
    int changes = 0;
    QObject::connect(&live, &vantorelle::LiveData::changed, [&changes] { ++changes; });
    const bool accepted = live.apply(doc.object());
    if (!accepted)
        require(changes == 0 && live.fieldNames().isEmpty() && live.sport().isEmpty());

    const QByteArray line = live.toJsonLine();
    require(line.endsWith('\n') && line.count('\n') == 1);
    QJsonParseError error;
    const QJsonDocument back = QJsonDocument::fromJson(line, &error);
    require(error.error == QJsonParseError::NoError && back.isObject());
    require(back.object() == live.toJson());

    const int before = changes;
    require(live.apply(doc.object()) == accepted);
    require(changes == before);
    return 0;
}
