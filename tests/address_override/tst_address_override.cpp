// A release build keeps its compiled-in addresses whatever OBS's environment says.
#include "address_override.h"

#include <QTest>

class TestAddressOverride : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void releaseBuildIgnoresTheEnvironment()
    {
        for (const char* name :
             {"VANTORELLE_PORTAL_URL", "VANTORELLE_UPDATE_URL", "VANTORELLE_FEED_PORT"}) {
            qputenv(name, "http://127.0.0.1:9/elsewhere");
            QCOMPARE(vantorelle::addressOverride(name), QString());
        }
        QVERIFY(!vantorelle::addressOverridesAllowed());
    }
};

QTEST_GUILESS_MAIN(TestAddressOverride)
#include "tst_address_override.moc"
