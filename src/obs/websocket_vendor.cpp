#include "websocket_vendor.h"

#include "app.h"
#include "wrapped_source.h"

#include <obs-module.h>
#include <obs.hpp>

#include <QJsonDocument>
#include <QJsonObject>
#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QSemaphore>
#include <QThread>

#include <array>
#include <memory>
#include <mutex>

namespace vantorelle {

namespace {

// What the websocket server keeps for a request: the function it calls (on its own threads)
// and the pointer handed back to it. The server copies this record when a request registers.
struct RequestCallback
{
    void (*callback)(obs_data_t* request, obs_data_t* response, void* priv);
    void* priv;
};

constexpr std::array<const char*, 6> kRequests{"GetSnapshot",      "GetStatus",
                                               "ListDevices",      "UseDevice",
                                               "SetOperatorField", "ReleaseOperatorField"};

// The server's own procedure handler and our vendor in it; null while not registered.
proc_handler_t* s_websocket = nullptr;
void* s_vendor = nullptr;
// Guards the application pointer the requests use: unload clears it before the object goes.
std::mutex s_mutex;
QPointer<App> s_app;
QMetaObject::Connection s_changed;

QJsonObject jsonOf(obs_data_t* data)
{
    const char* json = data ? obs_data_get_json(data) : nullptr;
    return json ? QJsonDocument::fromJson(QByteArray(json)).object() : QJsonObject();
}

// The longest a request waits for OBS's UI thread; a request during shutdown must not hold up
// the websocket server's threads, which OBS waits for.
constexpr int kRequestWaitMs = 5000;

// Answers a request. The server calls from its own threads, and the application object lives on
// OBS's UI thread: the answer is made there and waited for, never longer than kRequestWaitMs and
// never while holding the lock that unload takes. The snapshot is answered at once: it is
// guarded for readers on any thread.
void onRequest(obs_data_t* request, obs_data_t* response, void* priv) noexcept
{
    guardCallback("websocket request", [request, response, priv] {
        const QString type = QString::fromUtf8(static_cast<const char*>(priv));
        struct Exchange
        {
            QJsonObject request;
            QJsonObject answer;
            QSemaphore done;
        };
        auto exchange = std::make_shared<Exchange>();
        exchange->request = jsonOf(request);
        {
            std::lock_guard lock(s_mutex);
            if (!s_app)
                return;
            if (type == QLatin1String("GetSnapshot"))
                exchange->answer = s_app->handleVendorRequest(type, {});
        }
        const auto answer = [exchange, type] {
            App* app = nullptr;
            {
                std::lock_guard lock(s_mutex);
                app = s_app;
            }
            // Unloaded meanwhile: the object is gone and the answer stays empty.
            if (app)
                exchange->answer = app->handleVendorRequest(type, exchange->request);
            exchange->done.release();
        };
        if (type != QLatin1String("GetSnapshot")) {
            QCoreApplication* host = QCoreApplication::instance();
            if (!host || QThread::currentThread() == host->thread())
                answer();
            else
                QMetaObject::invokeMethod(host, answer, Qt::QueuedConnection);
            if (!exchange->done.tryAcquire(1, kRequestWaitMs))
                exchange->answer = {{QStringLiteral("ok"), false}, {QStringLiteral("error"), "busy"}};
        }
        OBSDataAutoRelease reply = obs_data_create_from_json(
            QJsonDocument(exchange->answer).toJson(QJsonDocument::Compact).constData());
        if (reply)
            obs_data_apply(response, reply);
    });
}

bool callWebsocket(const char* name, calldata_t* data)
{
    return s_websocket && proc_handler_call(s_websocket, name, data) &&
           calldata_bool(data, "success");
}

void emitSnapshot(const QByteArray& snapshotLine)
{
    OBSDataAutoRelease data = obs_data_create_from_json(snapshotLine.constData());
    calldata_t call = {};
    calldata_set_ptr(&call, "vendor", s_vendor);
    calldata_set_string(&call, "type", "SnapshotChanged");
    calldata_set_ptr(&call, "data", data.Get());
    callWebsocket("vendor_event_emit", &call);
    calldata_free(&call);
}

} // namespace

void registerWebsocketVendor(App* app)
{
    if (s_vendor || !app)
        return;
    calldata_t call = {};
    if (!proc_handler_call(obs_get_proc_handler(), "obs_websocket_api_get_ph", &call) ||
        !calldata_ptr(&call, "ph")) {
        calldata_free(&call);
        blog(LOG_DEBUG, "[vantorelle] no websocket server: remote-control requests not offered");
        return;
    }
    s_websocket = static_cast<proc_handler_t*>(calldata_ptr(&call, "ph"));
    calldata_free(&call);

    call = {};
    calldata_set_string(&call, "name", "vantorelle");
    if (!callWebsocket("vendor_register", &call) || !calldata_ptr(&call, "vendor")) {
        calldata_free(&call);
        s_websocket = nullptr;
        blog(LOG_WARNING, "[vantorelle] the websocket server did not take the vendor name");
        return;
    }
    s_vendor = calldata_ptr(&call, "vendor");
    calldata_free(&call);

    for (const char* type : kRequests) {
        RequestCallback callback{onRequest, const_cast<char*>(type)};
        calldata_t request = {};
        calldata_set_ptr(&request, "vendor", s_vendor);
        calldata_set_string(&request, "type", type);
        calldata_set_ptr(&request, "callback", &callback);
        if (!callWebsocket("vendor_request_register", &request))
            blog(LOG_WARNING, "[vantorelle] websocket request %s not offered", type);
        calldata_free(&request);
    }
    {
        std::lock_guard lock(s_mutex);
        s_app = app;
    }
    FieldOverlay* fields = &app->fields();
    s_changed = QObject::connect(fields, &FieldOverlay::changed, app,
                                 [fields] { emitSnapshot(fields->toJsonLine()); });
    blog(LOG_INFO, "[vantorelle] remote-control requests offered through the websocket server");
}

void unregisterWebsocketVendor()
{
    QObject::disconnect(s_changed);
    {
        std::lock_guard lock(s_mutex);
        s_app.clear();
    }
    if (!s_vendor)
        return;
    for (const char* type : kRequests) {
        calldata_t request = {};
        calldata_set_ptr(&request, "vendor", s_vendor);
        calldata_set_string(&request, "type", type);
        callWebsocket("vendor_request_unregister", &request);
        calldata_free(&request);
    }
    // The server has no call to take a vendor name back; it ends with OBS.
    s_vendor = nullptr;
    s_websocket = nullptr;
}

} // namespace vantorelle
