#pragma once

#include <QObject>
#include <QProcess>
#include <QTimer>

#include <functional>

namespace vantorelle {

// Runs the system's archive tool ("-xf <archive> -C <folder>") under a time-out.
class ArchiveUnpacker : public QObject
{
    Q_OBJECT

public:
    enum class Outcome
    {
        Unpacked,
        CannotStart,
        Failed
    };
    using Completion = std::function<void(Outcome)>;

    explicit ArchiveUnpacker(QObject* parent = nullptr);
    ~ArchiveUnpacker() override;

    // `done` is called once: Unpacked only after a normal exit with code 0; a tool still
    // running after `timeoutMs` is killed and counts as Failed.
    void start(const QString& tool, const QString& archive, const QString& folder, int timeoutMs,
               Completion done);

private:
    void complete(Outcome outcome);

    QProcess m_process;
    QTimer m_deadline;
    Completion m_done;
};

} // namespace vantorelle
