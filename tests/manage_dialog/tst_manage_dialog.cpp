#include "admin/manage_dialog.h"
#include "portal/portal_client.h"
#include "sim/portal_server.h"

#include <QComboBox>
#include <QJsonArray>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <memory>
#include <optional>

using namespace vantorelle;
using sim::HttpResponse;

namespace {

const QString kEmail = QStringLiteral("coach@example.com");
const QString kPassword = QStringLiteral("hunter22");
const QString kFailureStyle = QStringLiteral("color: #d9534f;");

} // namespace

class TestManageDialog : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_portal = std::make_unique<sim::PortalServer>();
        QVERIFY(m_portal->start());
        m_portal->addAccount(kEmail, kPassword);
        m_portal->addDevice(kEmail, {QStringLiteral("court-1"), QStringLiteral("Court 1")});
        m_portal->addDevice(kEmail, {QStringLiteral("court-2"), QStringLiteral("Court 2"),
                                     QStringLiteral("offline")});
        m_portal->setLiveData(QStringLiteral("court-1"), QStringLiteral("hockey"),
                              {{QStringLiteral("home_score"), 2}});
        m_client = std::make_unique<PortalClient>(m_portal->baseUrl());
        m_client->signIn(kEmail, kPassword, [](const PortalResult&) {});
        QTRY_VERIFY(m_client->isSignedIn());
    }

    void actions_data()
    {
        QTest::addColumn<QString>("device");
        QTest::addColumn<QString>("button");
        QTest::addColumn<QJsonObject>("reply"); // empty: the portal's own answer
        QTest::addColumn<QString>("waiting");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("result");

        const QString received = QStringLiteral("Status received.");
        QTest::newRow("status") << "court-1"
                                << "checkStatus" << QJsonObject() << "Asking the device…"
                                << received
                                << "device_id: court-1\nnickname: Court 1\nonline: true\nseq: "
                                   "1\nsport: hockey";
        const QJsonObject nested{{QStringLiteral("wifi"), QJsonObject{{"rssi", -51}}},
                                 {QStringLiteral("slots"), QJsonArray{1, 2}}};
        QTest::newRow("status of nested members only")
            << "court-1"
            << "checkStatus" << nested << "Asking the device…" << received
            << "The device answered.";
        QTest::newRow("update check")
            << "court-1"
            << "checkUpdate" << QJsonObject() << "Checking for a firmware update…"
            << "Update check finished."
            << "command: ota_check\nok: true";
        QTest::newRow("restart online") << "court-1"
                                        << "restartDevice" << QJsonObject() << "Restarting…"
                                        << "Restart sent." << QString();
        QTest::newRow("restart offline")
            << "court-2"
            << "restartDevice" << QJsonObject() << "Restarting…"
            << "The device is offline; it will restart when it reconnects." << QString();
        QTest::newRow("change scoreboard")
            << "court-1"
            << "changeScoreboard" << QJsonObject() << "Sending to the device…"
            << "The device accepted the new scoreboard." << QString();
    }

    void actions()
    {
        QFETCH(QString, device);
        QFETCH(QString, button);
        QFETCH(QJsonObject, reply);
        QFETCH(QString, waiting);
        QFETCH(QString, status);
        QFETCH(QString, result);
        if (!reply.isEmpty())
            m_portal->setFailure(QStringLiteral("/devices/%1/cmd/get_status").arg(device),
                                 HttpResponse::json(reply));

        ManageDialog dialog(device, m_client.get());
        QCOMPARE(dialog.windowTitle(), QStringLiteral("Manage %1").arg(device));
        click(dialog, button);
        QCOMPARE(label(dialog, "status")->text(), waiting);
        QTRY_COMPARE(label(dialog, "status")->text(), status);
        QCOMPARE(label(dialog, "status")->styleSheet(), QString());
        QCOMPARE(label(dialog, "result")->text(), result);
    }

    void changeScoreboardSendsTheChoice()
    {
        ManageDialog dialog(QStringLiteral("court-1"), m_client.get());
        // Away from the first entries, so that a value the dialog ignored shows.
        for (const char* name : {"manufacturer", "sport", "inputType"}) {
            QVERIFY(combo(dialog, name)->count() > 0);
            combo(dialog, name)->setCurrentIndex(combo(dialog, name)->count() - 1);
        }
        QVERIFY(combo(dialog, "model")->count() > 0);
        const QJsonObject expected{
            {"manufacturer", combo(dialog, "manufacturer")->currentData().toString()},
            {"model", combo(dialog, "model")->currentText()},
            {"sport", combo(dialog, "sport")->currentData().toString()},
            {"input_type", combo(dialog, "inputType")->currentData().toString()}};
        click(dialog, QStringLiteral("changeScoreboard"));
        QTRY_COMPARE(m_portal->deviceConfig(QStringLiteral("court-1")), expected);
    }

    void failureIsRedUntilStatusArrives_data()
    {
        QTest::addColumn<QString>("button");
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("httpStatus");
        // Every command goes the same way; the scoreboard goes to the config route.
        QTest::newRow("restart") << "restartDevice"
                                 << "/devices/court-1/cmd/reboot" << 502;
        QTest::newRow("scoreboard") << "changeScoreboard"
                                    << "/devices/court-1/config" << 402;
    }

    void failureIsRedUntilStatusArrives()
    {
        QFETCH(QString, button);
        QFETCH(QString, path);
        QFETCH(int, httpStatus);
        m_portal->fail(path, httpStatus);
        // The dialog adds no words: it shows what the client says about the same failure.
        std::optional<PortalResult> direct;
        const auto keep = [&](const PortalResult& r) { direct = r; };
        if (path.endsWith(u"/config"))
            m_client->setConfig(QStringLiteral("court-1"), {}, keep);
        else
            m_client->sendCommand(QStringLiteral("court-1"), path.section(QLatin1Char('/'), -1), {},
                                  keep);
        QTRY_VERIFY(direct.has_value());
        QVERIFY(!direct->message.isEmpty());

        ManageDialog dialog(QStringLiteral("court-1"), m_client.get());
        click(dialog, button);
        QTRY_COMPARE(label(dialog, "status")->text(), direct->message);
        QCOMPARE(label(dialog, "status")->styleSheet(), kFailureStyle);

        m_portal->clearFailure(path);
        click(dialog, QStringLiteral("checkStatus"));
        QTRY_COMPARE(label(dialog, "status")->text(), QStringLiteral("Status received."));
        QCOMPARE(label(dialog, "status")->styleSheet(), QString());
    }

    void answerAfterCloseIsDropped()
    {
        HttpResponse slow = HttpResponse::json({{QStringLiteral("online"), true}});
        slow.delayMs = 100;
        m_portal->setFailure(QStringLiteral("/devices/court-1/cmd/get_status"), slow);
        auto* network = m_client->findChild<QNetworkAccessManager*>();
        QVERIFY(network);
        QSignalSpy finished(network, &QNetworkAccessManager::finished);

        auto dialog = std::make_unique<ManageDialog>(QStringLiteral("court-1"), m_client.get());
        click(*dialog, QStringLiteral("checkStatus"));
        dialog.reset();
        QTRY_COMPARE(finished.count(), 1);
        QCoreApplication::processEvents();
    }

private:
    static QLabel* label(const ManageDialog& dialog, const char* name)
    {
        return dialog.findChild<QLabel*>(QLatin1String(name));
    }
    static QComboBox* combo(const ManageDialog& dialog, const char* name)
    {
        return dialog.findChild<QComboBox*>(QLatin1String(name));
    }
    static void click(const ManageDialog& dialog, const QString& name)
    {
        auto* button = dialog.findChild<QPushButton*>(name);
        QVERIFY2(button, qPrintable(name));
        button->click();
    }

    std::unique_ptr<sim::PortalServer> m_portal;
    std::unique_ptr<PortalClient> m_client;
};

QTEST_MAIN(TestManageDialog)
#include "tst_manage_dialog.moc"
