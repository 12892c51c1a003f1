#include "overlay_page.h"

#include "http_answer.h"
#include "score_template.h"

#include <QRegularExpression>
#include <QStringList>
#include <QUrl>
#include <QUrlQuery>

namespace vantorelle::http {

namespace {

// The page. "@NAME@" marks where a checked value goes; the template text goes into the script
// only as a string literal with every character that could end it escaped.
constexpr char Page[] = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>Vantorelle scorebug</title>
<style>
html, body { margin: 0; padding: 0; overflow: hidden; background: @BACKGROUND@; }
#score { font-family: @FONT@; font-size: @SIZE@px; font-weight: @WEIGHT@; color: @COLOR@;
         text-align: @ALIGN@; white-space: pre; line-height: 1.2; }
</style>
</head>
<body>
<div id="score"></div>
<script>
"use strict";
(function () {
  var template = "@TEMPLATE@";
  var out = document.getElementById("score");
  var placeholder = /\{([A-Za-z0-9_]+)\}/g;
  // As score templates are rendered in OBS: "{sport}" is the sport, an unknown name is empty,
  // and an inserted value is not read again.
  function show(snapshot) {
    var fields = snapshot.fields && typeof snapshot.fields === "object" ? snapshot.fields : {};
    var text = template.replace(placeholder, function (whole, name) {
      if (name === "sport")
        return String(snapshot.sport || "");
      return Object.prototype.hasOwnProperty.call(fields, name) ? String(fields[name]) : "";
    });
    if (out.textContent !== text)
      out.textContent = text;
  }
  var pause = 250;
  function follow() {
    var source = new EventSource("/events");
    source.onopen = function () {
      pause = 250;
      document.body.removeAttribute("data-offline");
    };
    source.onmessage = function (event) {
      var snapshot;
      try { snapshot = JSON.parse(event.data); } catch (e) { return; }
      if (snapshot && typeof snapshot === "object")
        show(snapshot);
    };
    // The browser would try again by itself after seconds, and not at all after an answer that
    // is no event stream. Starting over here is quicker, and waits longer each time the server
    // is still not there. The last score stays shown meanwhile.
    source.onerror = function () {
      document.body.setAttribute("data-offline", "");
      source.close();
      setTimeout(follow, pause);
      pause = Math.min(pause * 2, 5000);
    };
  }
  follow();
})();
</script>
</body>
</html>
)html";

QString queryValue(const QUrlQuery& query, const char* key)
{
    return query.queryItemValue(QLatin1String(key), QUrl::FullyDecoded);
}

bool matches(const char* pattern, const QString& text)
{
    return QRegularExpression(QLatin1String(pattern)).match(text).hasMatch();
}

QString colour(const QString& value, const char* fallback)
{
    // "#" starts the fragment of an address, so plain hex digits are taken as well.
    if (matches(R"(\A(?:[0-9A-Fa-f]{3,4}|[0-9A-Fa-f]{6}|[0-9A-Fa-f]{8})\z)", value))
        return QLatin1Char('#') + value;
    if (matches(R"(\A(?:#(?:[0-9A-Fa-f]{3,4}|[0-9A-Fa-f]{6}|[0-9A-Fa-f]{8})|[A-Za-z]{1,32}|)"
                R"((?:rgba?|hsla?)\([0-9.,% /]{1,64}\))\z)",
                value))
        return value;
    return QLatin1String(fallback);
}

QString fontFamilies(const QString& value)
{
    static const QStringList generic{QStringLiteral("serif"),     QStringLiteral("sans-serif"),
                                     QStringLiteral("monospace"), QStringLiteral("cursive"),
                                     QStringLiteral("fantasy"),   QStringLiteral("system-ui"),
                                     QStringLiteral("ui-rounded")};
    QStringList families;
    bool hasGeneric = false;
    for (const QString& part : value.split(QLatin1Char(','))) {
        const QString name = part.trimmed();
        if (families.size() == 8 || !matches(R"(\A[\p{L}\p{N} _-]{1,64}\z)", name))
            continue;
        if (generic.contains(name)) {
            families.append(name);
            hasGeneric = true;
        } else {
            families.append(QLatin1Char('"') + name + QLatin1Char('"'));
        }
    }
    if (!hasGeneric)
        families.append(QStringLiteral("sans-serif"));
    return families.join(QStringLiteral(", "));
}

QString fontSize(const QString& value)
{
    QString digits = value;
    if (digits.endsWith(QLatin1String("px")))
        digits.chop(2);
    bool ok = false;
    const int size = digits.toInt(&ok);
    return ok && size >= 1 && size <= 1000 && matches(R"(\A[0-9]+\z)", digits)
               ? QString::number(size)
               : QStringLiteral("64");
}

QString oneOf(const QString& value, const QStringList& allowed, const char* fallback)
{
    return allowed.contains(value) ? value : QLatin1String(fallback);
}

// A JavaScript string body: plain characters as they are, every other one as "\uXXXX", so that
// neither the literal nor the script element around it can end early.
QString scriptString(const QString& text)
{
    QString out;
    out.reserve(text.size());
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        const bool plain = (u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z') ||
                           (u >= u'0' && u <= u'9') ||
                           QStringView(u" _.,:;!?(){}[]#%+=*@^~|-").contains(c);
        if (plain)
            out.append(c);
        else
            out.append(QLatin1String("\\u") +
                       QString::number(u, 16).rightJustified(4, QLatin1Char('0')));
    }
    return out;
}

} // namespace

QByteArray overlayPage(QByteArrayView queryText)
{
    const QUrlQuery query(QString::fromUtf8(queryText.data(), queryText.size()));
    QString templateText = query.hasQueryItem(QStringLiteral("template"))
                               ? queryValue(query, "template").left(MaxTemplateChars)
                               : QString::fromLatin1(DefaultScoreTemplate);
    QString page = QString::fromUtf8(Page);
    // Each value is checked or escaped before it goes in. Only the template may hold "@": it goes
    // in last, so no value can make a marker for a later one.
    page.replace(QLatin1String("@BACKGROUND@"),
                 colour(queryValue(query, "background"), "transparent"));
    page.replace(QLatin1String("@FONT@"), fontFamilies(queryValue(query, "font")));
    page.replace(QLatin1String("@SIZE@"), fontSize(queryValue(query, "size")));
    page.replace(QLatin1String("@WEIGHT@"),
                 oneOf(queryValue(query, "weight"),
                       {QStringLiteral("normal"), QStringLiteral("bold"), QStringLiteral("100"),
                        QStringLiteral("200"), QStringLiteral("300"), QStringLiteral("400"),
                        QStringLiteral("500"), QStringLiteral("600"), QStringLiteral("700"),
                        QStringLiteral("800"), QStringLiteral("900")},
                       "normal"));
    page.replace(QLatin1String("@COLOR@"), colour(queryValue(query, "color"), "#ffffff"));
    page.replace(QLatin1String("@ALIGN@"),
                 oneOf(queryValue(query, "align"),
                       {QStringLiteral("left"), QStringLiteral("center"), QStringLiteral("right")},
                       "left"));
    page.replace(QLatin1String("@TEMPLATE@"), scriptString(templateText));
    return page.toUtf8();
}

} // namespace vantorelle::http
