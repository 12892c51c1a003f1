#pragma once

#include <QtGlobal>

class QNetworkReply;

namespace vantorelle {

// The most an answer from a device or the portal may hold; a larger one is cut off.
constexpr qint64 MaxReplyBytes = 4 * 1024 * 1024;

// Aborts `reply` as soon as its body passes `maxBytes`, so a peer cannot make this process
// hold an answer of any size. The abort is marked on the reply: see replyWasTooLarge.
void limitReplySize(QNetworkReply* reply, qint64 maxBytes = MaxReplyBytes);
bool replyWasTooLarge(const QNetworkReply* reply);

} // namespace vantorelle
