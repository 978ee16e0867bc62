// The console's HTTP side, served by cpp-httplib on its own threads: the
// page, its event stream and the requests it makes. Everything here touches
// only the bridge, never the host (see console_bridge.h).
#include "console.h"
#include "console_bridge.h"
#include "console_model.h"

#include <httplib.h>

#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

// Resources of a static library are registered by hand, outside any namespace.
static void registerConsolePage()
{
    Q_INIT_RESOURCE(console);
}

namespace xbchost {

namespace {

// One thread per connection, so a client slow to send its headers holds only
// its own thread and never those of the others (a fixed pool of threads is
// used up by as many slow clients as it has threads).
struct ConnectionThreads : httplib::TaskQueue {
    explicit ConnectionThreads(int most) : most(most)
    {
    }
    void enqueue(std::function<void()> fn) override
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this]() { return running < most || stopping; });
        ++running;
        std::thread([this, fn = std::move(fn)]() mutable {
            fn();
            fn = nullptr;
            std::lock_guard<std::mutex> done(mutex);
            --running;
            changed.notify_all();
        }).detach();
    }
    // Returns once every connection's thread has finished with this queue.
    void shutdown() override
    {
        std::unique_lock<std::mutex> lock(mutex);
        stopping = true;
        changed.wait(lock, [this]() { return running == 0; });
    }
    const int most;
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    bool stopping = false;
};

enum {
    // Connections served at once, each on a thread of its own; more wait
    // until one ends.
    MAX_CONNECTION_THREADS = 256,
    // A client that sends nothing for this long loses its connection, so a
    // stalled request holds its thread no longer.
    READ_TIMEOUT_SECONDS = 2,
    KEEP_ALIVE_SECONDS = 1, // an idle browser connection holds up the end no longer
    MAX_TEXT_CHARS = 200,
    MAX_BODY_BYTES = 4096,
    REFUSED_RETRY_MS = 5000, // a refused page asks again this much later
    HTTP_OK = 200,
    HTTP_BAD_REQUEST = 400,
    HTTP_UNAUTHORIZED = 401,
    HTTP_FORBIDDEN = 403,
    HTTP_NOT_FOUND = 404,
    HTTP_BAD_METHOD = 405,
    HTTP_TOO_LARGE = 413,
    HTTP_URI_TOO_LONG = 414,
    HTTP_UNSUPPORTED_TYPE = 415,
    HTTP_UNAVAILABLE = 503,
};

const char *const JSON_TYPE = "application/json";
const char *const EVENT_STREAM_TYPE = "text/event-stream";
const char *const TOKEN_PARAM = "token";
const char *const TOKEN_HEADER = "X-Console-Token";

} // namespace

struct Console {
    Console(Host &host) : model(host, bridge)
    {
    }

    ConsoleOptions options;
    std::string page;
    quint16 port = 0;
    ConsoleBridge bridge;
    ConsoleModel model; // host thread only
    httplib::Server server;
    std::thread serverThread;
};

namespace {

void replyJson(httplib::Response &res, int status, const QJsonObject &body)
{
    res.status = status;
    res.set_content(compactJson(body).toStdString(), JSON_TYPE);
}

void replyRefusal(httplib::Response &res, int status, const QString &message)
{
    replyJson(res, status, refusal(message));
}

bool constantTimeEqual(const std::string &a, const std::string &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

// A page from another site must not reach the console: on loopback the Host
// header must name loopback (no renamed address), and a request carrying an
// Origin must come from the console's own page.
QString foreignRequest(const Console &c, const httplib::Request &req)
{
    const std::string host = req.get_header_value("Host");
    if (QHostAddress(c.options.address).isLoopback()) {
        const std::string port = ":" + std::to_string(c.port);
        const bool loopbackName =
            host == "127.0.0.1" + port || host == "localhost" + port || host == "[::1]" + port;
        if (!loopbackName)
            return QStringLiteral("this console answers only at http://127.0.0.1:%1/").arg(c.port);
    }
    const std::string origin = req.get_header_value("Origin");
    if (!origin.empty() && origin != "http://" + host)
        return QStringLiteral("requests from other sites are refused");
    return QString();
}

bool tokenPresented(const Console &c, const httplib::Request &req)
{
    const std::string token = c.options.token.toStdString();
    return constantTimeEqual(req.get_header_value(TOKEN_HEADER), token) ||
           constantTimeEqual(req.get_param_value(TOKEN_PARAM), token);
}

httplib::Server::HandlerResponse screenRequest(const Console &c, const httplib::Request &req,
                                               httplib::Response &res)
{
    const QString foreign = foreignRequest(c, req);
    if (!foreign.isEmpty()) {
        replyRefusal(res, HTTP_FORBIDDEN, foreign);
        return httplib::Server::HandlerResponse::Handled;
    }
    if (!c.options.token.isEmpty() && !tokenPresented(c, req)) {
        replyRefusal(res, HTTP_UNAUTHORIZED,
                     QStringLiteral("this console needs its access token: open the address "
                                    "xbc-host printed at start (it ends in ?token=...)"));
        return httplib::Server::HandlerResponse::Handled;
    }
    if (req.method == "POST" && req.get_header_value("Content-Type").rfind(JSON_TYPE, 0) != 0) {
        replyRefusal(res, HTTP_UNSUPPORTED_TYPE,
                     QStringLiteral("send the request as application/json"));
        return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
}

// What an error reply says when no handler said more.
QString errorText(int status)
{
    switch (status) {
    case HTTP_NOT_FOUND:
        return QStringLiteral("no such page");
    case HTTP_BAD_REQUEST:
        return QStringLiteral("malformed request: the console answers GET and POST only");
    case HTTP_BAD_METHOD:
        return QStringLiteral("the console answers GET and POST only");
    case HTTP_TOO_LARGE:
        return QStringLiteral("the request is larger than the console takes (%1 bytes)")
            .arg(int(MAX_BODY_BYTES));
    case HTTP_URI_TOO_LONG:
        return QStringLiteral("the address of the request is too long");
    default:
        return QStringLiteral("the request failed (HTTP %1)").arg(status);
    }
}

// Reads the named string fields of a JSON object body. On bad input the
// response is set and false returned.
bool readFields(const httplib::Request &req, httplib::Response &res,
                const std::vector<const char *> &names, QStringList &out)
{
    QJsonParseError parseError;
    const QJsonDocument doc =
        QJsonDocument::fromJson(QByteArray::fromStdString(req.body), &parseError);
    if (parseError.error != QJsonParseError::NoError || !doc.isObject()) {
        replyRefusal(res, HTTP_BAD_REQUEST, QStringLiteral("the request is not a JSON object"));
        return false;
    }
    for (const char *name : names) {
        const QJsonValue value = doc.object().value(QLatin1String(name));
        const QString text = value.toString().trimmed();
        QString problem;
        if (!value.isString() || text.isEmpty())
            problem = QStringLiteral("'%1' is missing");
        else if (text.size() > MAX_TEXT_CHARS)
            problem = QStringLiteral("'%1' is longer than %2 characters").arg(int(MAX_TEXT_CHARS));
        else if (std::any_of(text.begin(), text.end(), [](QChar ch) { return !ch.isPrint(); }))
            problem = QStringLiteral("'%1' holds a character that is not allowed");
        if (!problem.isEmpty()) {
            replyRefusal(res, HTTP_BAD_REQUEST, problem.arg(QLatin1String(name)));
            return false;
        }
        out << text;
    }
    return true;
}

void answerFromHost(Console &c, httplib::Response &res, std::function<QJsonObject()> work)
{
    QJsonObject answer;
    if (!callHost(c.bridge, std::move(work), answer)) {
        replyRefusal(res, HTTP_UNAVAILABLE,
                     QStringLiteral("the communication loop did not answer; try again"));
        return;
    }
    const bool ok = answer.value(QStringLiteral("ok")).toBool(true);
    replyJson(res, ok ? HTTP_OK : HTTP_BAD_REQUEST, answer);
}

// One piece of a page's event stream: a snapshot first (and again when the
// page fell too far behind), then the events as they come, or a comment
// when none came for a while. False ends the stream.
bool streamSome(Console &c, StreamCursor &cursor, httplib::DataSink &sink)
{
    std::string out;
    if (cursor.needSnapshot) {
        QJsonObject snapshot;
        if (!callHost(
                c.bridge, [&c]() { return snapshotJson(c.model); }, snapshot))
            return false;
        cursor.next = quint64(snapshot.value(QStringLiteral("seq")).toDouble());
        cursor.needSnapshot = false;
        out = "retry: " + std::to_string(int(STREAM_RETRY_MS)) + "\n" +
              encodeEvent("snapshot", snapshot);
    } else if (!takeEvents(c.bridge, cursor, out)) {
        return false;
    }
    if (out.empty())
        out = ": idle\n\n";
    return sink.write(out.data(), out.size());
}

// A page over the limit gets a stream that says why and ends: a browser's
// event stream cannot read the body of an error reply.
void serveEvents(Console &c, httplib::Response &res)
{
    res.set_header("Cache-Control", "no-store");
    if (!openStream(c.bridge)) {
        const std::string refused =
            "retry: " + std::to_string(int(REFUSED_RETRY_MS)) + "\n" +
            encodeEvent("refused",
                        refusal(QStringLiteral("too many console pages open (%1); close one "
                                               "and this page connects")
                                    .arg(int(MAX_EVENT_STREAMS))));
        res.set_content(refused, EVENT_STREAM_TYPE);
        return;
    }
    auto cursor = std::make_shared<StreamCursor>();
    res.set_chunked_content_provider(
        EVENT_STREAM_TYPE,
        [&c, cursor](size_t, httplib::DataSink &sink) { return streamSome(c, *cursor, sink); },
        [&c](bool) { closeStream(c.bridge); });
}

// A POST route whose JSON fields are handed to work on the host's thread.
void postRoute(Console &c, const char *path, std::vector<const char *> fields,
               QJsonObject (*work)(ConsoleModel &, const QStringList &))
{
    c.server.Post(path, [&c, fields, work](const httplib::Request &req, httplib::Response &res) {
        QStringList f;
        if (readFields(req, res, fields, f))
            answerFromHost(c, res, [&c, f, work]() { return work(c.model, f); });
    });
}

void setUpRoutes(Console &c)
{
    httplib::Server &s = c.server;
    s.new_task_queue = []() { return new ConnectionThreads(MAX_CONNECTION_THREADS); };
    s.set_read_timeout(READ_TIMEOUT_SECONDS);
    s.set_payload_max_length(MAX_BODY_BYTES);
    s.set_keep_alive_timeout(KEEP_ALIVE_SECONDS);
    // The token must not travel on to other sites in a Referer.
    s.set_default_headers(
        {{"Referrer-Policy", "no-referrer"}, {"X-Content-Type-Options", "nosniff"}});
    s.set_pre_routing_handler([&c](const httplib::Request &req, httplib::Response &res) {
        return screenRequest(c, req, res);
    });
    s.Get("/", [&c](const httplib::Request &, httplib::Response &res) {
        res.set_header("Cache-Control", "no-store");
        res.set_content(c.page, "text/html; charset=utf-8");
    });
    s.Get("/events",
          [&c](const httplib::Request &, httplib::Response &res) { serveEvents(c, res); });
    s.Get("/api/state", [&c](const httplib::Request &, httplib::Response &res) {
        answerFromHost(c, res, [&c]() { return snapshotJson(c.model); });
    });
    postRoute(c, "/api/watch", {"text"},
              [](ConsoleModel &m, const QStringList &f) { return addWatchFromPage(m, f[0]); });
    postRoute(c, "/api/unwatch", {"text"},
              [](ConsoleModel &m, const QStringList &f) { return removeWatchFromPage(m, f[0]); });
    postRoute(c, "/api/write", {"target", "values"},
              [](ConsoleModel &m, const QStringList &f) { return writeFromPage(m, f[0], f[1]); });
    s.set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty())
            replyRefusal(res, res.status, errorText(res.status));
    });
}

} // namespace

void ConsoleStop::operator()(Console *c) const
{
    if (!c)
        return;
    stopBridge(c->bridge);
    c->server.stop();
    if (c->serverThread.joinable())
        c->serverThread.join();
    Host &host = c->model.host;
    host.config.traceSink = nullptr;
    host.config.noteSink = nullptr;
    host.config.beforeExchange = nullptr;
    delete c;
}

ConsoleHandle startConsole(Host &host, const ConsoleOptions &options, QString *url, QString *error)
{
    registerConsolePage();
    QFile page(QStringLiteral(":/console/index.html"));
    if (!page.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("console: the page is missing from the program");
        return ConsoleHandle();
    }
    ConsoleHandle c(new Console(host));
    c->options = options;
    c->page = page.readAll().toStdString();
    c->model.clock.start();
    setUpRoutes(*c);

    const std::string address = options.address.toStdString();
    int port = options.port;
    if (port == 0)
        port = c->server.bind_to_any_port(address);
    else if (!c->server.bind_to_port(address, port))
        port = -1;
    if (port <= 0) {
        *error = QStringLiteral("console: cannot listen on %1 port %2 (port in use, or not an "
                                "address of this machine)")
                     .arg(options.address)
                     .arg(options.port);
        return ConsoleHandle();
    }
    c->port = quint16(port);

    ConsoleModel *model = &c->model;
    host.config.traceSink = [model](const QString &line) { keepFrameLine(*model, line); };
    host.config.noteSink = [model](const Notification &note) { publishChange(*model, note); };
    host.config.beforeExchange = [model]() { serveHostSide(*model); };
    Console *raw = c.get();
    c->serverThread = std::thread([raw]() { raw->server.listen_after_bind(); });
    *url = consoleAddressText(options, c->port);
    return c;
}

} // namespace xbchost
