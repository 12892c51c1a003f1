#pragma once

#include "command_line.h"
#include "plugin_updater.h"

#include <QObject>

namespace vantorelle::bridge {

// `update`: recovers the plug-in folder from an interrupted swap, then checks for an update and
// installs it, printing every status sentence.
class Update : public QObject
{
    Q_OBJECT

public:
    explicit Update(const UpdateCommand& command, QObject* parent = nullptr);

    void start();

Q_SIGNALS:
    void finished(int exitCode);

private:
    void follow();

    PluginUpdater m_updater;
    QString m_installFolder;
    QString m_lastText;
};

} // namespace vantorelle::bridge
