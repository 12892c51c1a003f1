#pragma once

class QCoreApplication;

namespace vantorelle::tools {

// Makes SIGINT and SIGTERM (Ctrl+C and Ctrl+Break on Windows) quit the application's event loop
// cleanly: the handler only writes a byte to a socket pair (on Windows, queues the quit), and the
// event loop reads it and calls quit(). Call once, after the application object exists. Returns
// false when the socket pair or the handlers could not be installed.
bool quitOnSignals(QCoreApplication& app);

} // namespace vantorelle::tools
