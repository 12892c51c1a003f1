// Feed the sharing server's HTTP side what a client could send: the opening bytes are classified,
// a complete request head is answered, and the input also serves as an overlay query string and
// as a field's name and value in the XML snapshot. Every answer must be one well-framed HTTP
// message, the page must keep its one style and one script element, and the XML must be
// well-formed.
#include "fuzz_require.h"
#include "http_answer.h"
#include "live_data.h"
#include "overlay_page.h"

#include <QXmlStreamReader>

#include <cstdint>

using vantorelle::fuzz::require;

namespace {

void checkXml(const QByteArray& xml, int wantedElements)
{
    QXmlStreamReader reader(xml);
    int elements = 0;
    while (!reader.atEnd()) {
        if (reader.readNext() == QXmlStreamReader::StartElement)
            ++elements;
    }
    require(!reader.hasError());
    require(elements == wantedElements);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    namespace http = vantorelle::http;
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));

    const http::Opening opening = http::classifyOpening(input);
    http::Request request;
    const http::HeadState head = http::readRequestHead(input, &request);
    require(head != http::HeadState::TooLarge || input.size() > http::MaxRequestHeadBytes);
    if (opening == http::Opening::Request && head == http::HeadState::Complete) {
        const QString text = QString::fromUtf8(input);
        const QByteArray line = vantorelle::snapshotLine(
            QStringLiteral("hockey"), {{text, text}, {QStringLiteral("home_score"), text}}, text,
            {});
        const http::Answer answer = http::answer(request, [&] { return line; });
        require(answer.bytes.startsWith("HTTP/1.1 "));
        const qsizetype end = answer.bytes.indexOf("\r\n\r\n");
        require(end > 0);
        const QByteArray headers = answer.bytes.left(end);
        const qsizetype length = headers.indexOf("\r\nContent-Length: ");
        require((length >= 0) != answer.events);
        if (length >= 0 && request.method != "HEAD") {
            const qsizetype from = length + 18;
            const QByteArray number = headers.mid(from, headers.indexOf("\r\n", from) - from);
            require(number.toLongLong() == answer.bytes.size() - end - 4);
        }
        for (const QByteArray& header : headers.split('\n'))
            require(header.endsWith('\r') || header == headers.split('\n').constLast());
    }

    const QByteArray page = http::overlayPage(input);
    require(page.count("</style>") == 1 && page.count("</script>") == 1 &&
            page.count("<script>") == 1);

    const QString name = QString::fromUtf8(input);
    const QByteArray line =
        vantorelle::snapshotLine(name, {{name, name}, {QStringLiteral("a"), name}}, name, {});
    const bool named = !http::xmlElementName(name).isEmpty() && name != QLatin1String("sport") &&
                       name != QLatin1String("a");
    checkXml(http::snapshotXml(line), 3 + (named ? 1 : 0));
    return 0;
}
