#pragma once

#include "admin_reassembler.h"
#include "frame_codec.h"
#include "frame_decoder.h"

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QTimer>

namespace vantorelle::sim {

class AdminResponder;
class Game;

// Plays a Vantorelle device (or a wireless receiver) on the master side of a pseudo-terminal.
// The computer opens portPath() as its serial port and speaks the framed protocol of the USB line:
// the device answers hello and ping, streams a game's envelopes as type-1 frames, answers admin
// requests (type 4, fragmented both ways above 2048 bytes) through an AdminResponder and, as a
// receiver, the "rx_" control messages.
class UsbDevice : public QObject
{
    Q_OBJECT

public:
    enum class Role
    {
        Device,
        Receiver
    };

    // Bytes waiting for the computer beyond this are dropped (the computer is not reading).
    static constexpr qsizetype MaxPendingOutput = 1024 * 1024;

    explicit UsbDevice(QObject* parent = nullptr);
    ~UsbDevice() override;

    // Opens a new pseudo-terminal (posix_openpt, raw mode) and returns true when it is ready; the
    // computer opens portPath(). A second start() unplugs the first terminal.
    bool start();
    QString portPath() const { return m_portPath; }
    bool isStarted() const { return m_master >= 0; }
    // Closes the master: the computer's reads fail (hang-up). start() again gives a new path.
    void unplug();

    void setRole(Role role) { m_role = role; }
    Role role() const { return m_role; }
    // false: hello (and ping) stay unanswered, as a port that is not a Vantorelle device.
    void setAnswersHello(bool answers) { m_answersHello = answers; }
    // Merged into the hello answer (or the receiver's "rx_status"): name, fw_version, tunnel,
    // streams...
    void setHelloInfo(const QJsonObject& extra) { m_helloInfo = extra; }
    // The admin password for "login".
    void setPassword(const QString& password);
    // Answers the next `n` admin requests with the busy error.
    void setBusyReplies(int n);
    // How often the master side is read and pending output flushed (default 5 ms).
    void setPollInterval(int ms);
    // false: admin requests are received (adminRequest is emitted) but never answered.
    void setAnswersAdmin(bool answers) { m_answersAdmin = answers; }
    // Delays each admin reply by this many milliseconds (default 0).
    void setAdminReplyDelay(int ms) { m_adminReplyDelayMs = ms; }
    // true: the port stays open and what the computer sends is still read, but the device sends
    // nothing at all (no answers, no pongs, no live data), as firmware that hung.
    void setMuted(bool muted);

    // Receiver role: the next "rx_set" is answered with "rx_error" carrying `error`.
    void failNextReceiverRequest(const QString& error) { m_receiverError = error; }
    // Receiver role: false leaves "rx_" requests unanswered (the computer times out).
    void setAnswersReceiver(bool answers) { m_answersReceiver = answers; }
    QString receiverKey() const { return m_receiverKey; }
    int receiverChannel() const { return m_receiverChannel; }
    // Sends the receiver's "rx_status" now, unasked.
    void sendReceiverStatus();

    // Sends one live-data envelope as a type-1 frame.
    void sendEnvelope(const QJsonObject& envelope);
    // Sends a type-3 control message.
    void sendControl(const QJsonObject& message);
    // Sends one frame; payloads over 2048 bytes send nothing.
    void sendFrame(FrameType type, const QByteArray& payload);
    // Sends an admin reply, fragmented when it is over 2048 bytes.
    void sendAdminReply(const QByteArray& reply);
    // Sends bytes as they are (garbage, partial frames).
    void sendRaw(const QByteArray& bytes);

    // Live envelopes from a simulated game, one every `intervalMs`.
    void startGame(int intervalMs);
    void stopGame();

    int helloCount() const { return m_helloCount; }
    AdminResponder* admin() const { return m_admin; }
    Game* game() const { return m_game; }

Q_SIGNALS:
    void frameReceived(vantorelle::FrameType type, const QByteArray& payload);
    void controlReceived(const QJsonObject& message); // every type-3 object from the computer
    void adminRequest(const QJsonObject& request);    // every reassembled type-4 request
    void relayReceived(const QByteArray& bytes);      // type-2 bytes from the computer
    void streamReceived(const QByteArray& bytes);     // type-5 bytes from the computer

private:
    void poll();
    void readMaster();
    void flushOutput();
    void dispatch(const Frame& frame);
    void handleControl(const QJsonObject& message);
    void handleReceiverControl(const QString& kind, const QJsonObject& message);
    void handleAdminPayload(const QByteArray& payload);
    void answerAdmin(const QJsonObject& request);
    QJsonObject helloAnswer() const;
    QJsonObject receiverStatus() const;
    void closeMaster();

    int m_master = -1;
    QString m_portPath;
    QTimer m_pollTimer;
    FrameDecoder m_decoder;
    AdminReassembler m_reassembler;
    QByteArray m_output;

    Role m_role = Role::Device;
    bool m_answersHello = true;
    bool m_answersAdmin = true;
    bool m_muted = false;
    int m_adminReplyDelayMs = 0;
    QJsonObject m_helloInfo;
    int m_helloCount = 0;

    bool m_answersReceiver = true;
    QString m_receiverError;
    QString m_receiverKey;
    int m_receiverChannel = 6;

    AdminResponder* m_admin = nullptr;
    Game* m_game = nullptr;
};

} // namespace vantorelle::sim
