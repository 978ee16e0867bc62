// Browser console of xbc-host: HTTP and the page's event stream from
// cpp-httplib, JSON from Qt. See console.h for the split between the server's
// threads and the host's thread.
#include "console.h"

#include <httplib.h>

#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTime>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

// Resources of a static library are registered by hand, outside any namespace.
static void registerConsolePage()
{
    Q_INIT_RESOURCE(console);
}

namespace xbchost {

namespace {

enum {
    FRAME_LINES_KEPT = 200,  // frames the page lists
    WRITES_KEPT = 20,        // recent writes shown with their outcome
    FEED_EVENTS_KEPT = 2000, // a page further behind starts over from a snapshot
    SERVER_THREADS = 8,
    MAX_EVENT_STREAMS = 4, // leaves server threads for the page's requests
    MAX_TEXT_CHARS = 200,
    MAX_WATCHES = 64,
    MAX_WATCH_ELEMENTS = 256, // rows of one watch; the table stays readable
    MAX_WRITE_VALUES = 64,
    MAX_BODY_BYTES = 4096,
    HOST_ANSWER_TIMEOUT_MS = 3000,
    HOST_ANSWER_SLICE_MS = 100, // how soon a waiting server thread notices a stop
    STREAM_IDLE_MS = 1000,      // an idle stream still writes, so a gone page is noticed
    STREAM_RETRY_MS = 1000,     // the browser's pause before it reconnects a stream
    STATUS_PERIOD_MS = 500,
    FRAMES_PERIOD_MS = 100,
    RECONNECT_GRACE_ATTEMPTS = 3, // failed attempts after a drop before the link is "down"
    TOKEN_BYTES = 16,
    KEEP_ALIVE_SECONDS = 1, // an idle browser connection holds up the end no longer
    HTTP_OK = 200,
    HTTP_BAD_REQUEST = 400,
    HTTP_UNAUTHORIZED = 401,
    HTTP_FORBIDDEN = 403,
    HTTP_UNSUPPORTED_TYPE = 415,
    HTTP_UNAVAILABLE = 503,
};

const char *const JSON_TYPE = "application/json";
const char *const TOKEN_PARAM = "token";
const char *const TOKEN_HEADER = "X-Console-Token";

// ---------------------------------------------------------------------------
// Host thread to server threads: events for the page's streams.

struct Feed {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::string> events; // encoded for an event stream
    quint64 firstSeq = 0;           // sequence number of events.front()
    int streams = 0;
    bool stopping = false;
};

// Server threads to host thread: work that touches the host or the driver.
struct Job {
    std::function<QJsonObject()> work;
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    QJsonObject answer;
};

struct PendingWrite {
    int tag = 0;
    QString text;
    WriteItem item;
};

struct RateSample {
    qint64 atMs = 0;
    int frames = 0;
    int cycles = 0;
    qint64 cycleNs = 0;
};

} // namespace

struct Console {
    explicit Console(Host &h) : host(h)
    {
    }

    Host &host;
    ConsoleOptions options;
    std::string page;
    quint16 port = 0;

    // Shared with the server's threads.
    Feed feed;
    std::mutex jobsMutex;
    std::deque<std::shared_ptr<Job>> jobs;
    std::atomic<bool> stopping{false};
    httplib::Server server;
    std::thread serverThread;

    // Host thread only.
    QStringList frameLines;
    QStringList unsentFrameLines;
    QList<PendingWrite> pendingWrites;
    QList<QJsonObject> recentWrites;
    QElapsedTimer clock;
    qint64 lastStatusMs = -STATUS_PERIOD_MS;
    qint64 lastFramesMs = 0;
    RateSample lastSample;
    double framesPerSecond = 0;
    double cycleMs = -1; // -1: no cycle completed in the last period
};

namespace {

// ---------------------------------------------------------------------------
// Event feed.

QByteArray compactJson(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::string encodeEvent(const char *name, const QJsonObject &data)
{
    std::string out = "event: ";
    out += name;
    out += "\ndata: ";
    out += compactJson(data).toStdString();
    out += "\n\n";
    return out;
}

quint64 feedEnd(const Feed &feed)
{
    return feed.firstSeq + feed.events.size();
}

void publish(Feed &feed, const char *name, const QJsonObject &data)
{
    std::string event = encodeEvent(name, data);
    {
        std::lock_guard<std::mutex> lock(feed.mutex);
        feed.events.push_back(std::move(event));
        while (feed.events.size() > FEED_EVENTS_KEPT) {
            feed.events.pop_front();
            ++feed.firstSeq;
        }
    }
    feed.changed.notify_all();
}

// ---------------------------------------------------------------------------
// Running work on the host's thread.

// Hands work to the host's thread and waits for its answer. False when the
// host did not come round in time (its loop is not running) or the console
// is stopping.
bool callHost(Console &c, std::function<QJsonObject()> work, QJsonObject &answer)
{
    auto job = std::make_shared<Job>();
    job->work = std::move(work);
    {
        std::lock_guard<std::mutex> lock(c.jobsMutex);
        if (c.stopping)
            return false;
        c.jobs.push_back(job);
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(HOST_ANSWER_TIMEOUT_MS);
    std::unique_lock<std::mutex> lock(job->mutex);
    while (!job->done) {
        if (c.stopping || std::chrono::steady_clock::now() >= deadline)
            return false;
        job->finished.wait_for(lock, std::chrono::milliseconds(HOST_ANSWER_SLICE_MS));
    }
    answer = job->answer;
    return true;
}

void runJobs(Console &c)
{
    std::deque<std::shared_ptr<Job>> jobs;
    {
        std::lock_guard<std::mutex> lock(c.jobsMutex);
        jobs.swap(c.jobs);
    }
    for (const std::shared_ptr<Job> &job : jobs) {
        QJsonObject answer = job->work();
        std::lock_guard<std::mutex> lock(job->mutex);
        job->answer = std::move(answer);
        job->done = true;
        job->finished.notify_all();
    }
}

// ---------------------------------------------------------------------------
// What the page shows. Host thread.

QString addressLabel(const QString &regName, int address)
{
    if (regName.endsWith(QLatin1String("_bit")))
        return QStringLiteral("%1.%2").arg(address / 16).arg(address % 16);
    return QString::number(address);
}

// Rows are keyed by register and numeric address, as notifications name them.
QString elementKey(const QString &regName, int address)
{
    return QStringLiteral("%1:%2").arg(regName).arg(address);
}

QString watchText(const KEY_ADDRESS &key)
{
    QString text = QStringLiteral("%1:%2").arg(key.regName, addressLabel(key.regName, key.address));
    if (key.count > 1)
        text += QStringLiteral(":%1").arg(key.count);
    return text;
}

QString targetText(const LinkConfig &config)
{
    return config.kind == LinkConfig::Tcp
               ? QStringLiteral("%1:%2").arg(config.host).arg(config.port)
               : config.device;
}

bool linkUp(const Link &link)
{
    if (link.config.kind == LinkConfig::Tcp)
        return link.tcp && link.tcp->state() == QAbstractSocket::ConnectedState;
    return link.serial && link.serial->isOpen();
}

QString linkState(const Link &link)
{
    if (linkUp(link))
        return QStringLiteral("connected");
    if (link.connects == 0)
        return link.failedAttempts == 0 ? QStringLiteral("connecting") : QStringLiteral("down");
    return link.failedAttempts < RECONNECT_GRACE_ATTEMPTS ? QStringLiteral("reconnecting")
                                                          : QStringLiteral("down");
}

QJsonArray watchesJson(Host &host)
{
    QJsonArray watches;
    for (const KEY_ADDRESS &key : qAsConst(host.keys)) {
        const QVector<int> values = shownValues(host, key.regName, key.address, key.count);
        QJsonArray elements;
        for (int i = 0; i < key.count; ++i)
            elements.append(
                QJsonObject{{QStringLiteral("key"), elementKey(key.regName, key.address + i)},
                            {QStringLiteral("label"), addressLabel(key.regName, key.address + i)},
                            {QStringLiteral("value"), values.value(i)}});
        watches.append(QJsonObject{{QStringLiteral("text"), watchText(key)},
                                   {QStringLiteral("reg"), key.regName},
                                   {QStringLiteral("bit"), isBitRegister(host, key.regName)},
                                   {QStringLiteral("elements"), elements}});
    }
    return watches;
}

void sampleRates(Console &c)
{
    const HostStats &s = c.host.stats;
    const RateSample now{c.clock.elapsed(), s.framesSent, s.pollCycles, s.pollCycleNsTotal};
    const qint64 spanMs = now.atMs - c.lastSample.atMs;
    if (spanMs > 0)
        c.framesPerSecond = (now.frames - c.lastSample.frames) * 1000.0 / spanMs;
    const int cycles = now.cycles - c.lastSample.cycles;
    c.cycleMs = cycles > 0 ? double(now.cycleNs - c.lastSample.cycleNs) / 1e6 / cycles : -1;
    c.lastSample = now;
}

QJsonObject statusJson(Console &c)
{
    const HostStats &s = c.host.stats;
    const Link &link = c.host.link;
    QJsonObject status{
        {QStringLiteral("link"), linkState(link)},
        {QStringLiteral("target"), targetText(link.config)},
        {QStringLiteral("connects"), link.connects},
        {QStringLiteral("drops"), s.linkDrops},
        {QStringLiteral("failedAttempts"), link.failedAttempts},
        {QStringLiteral("framesPerSecond"), qRound(c.framesPerSecond * 10) / 10.0},
        {QStringLiteral("framesSent"), s.framesSent},
        {QStringLiteral("goodReplies"), s.goodReplies},
        {QStringLiteral("retries"), s.retries},
        {QStringLiteral("abandoned"), s.abandoned},
        {QStringLiteral("pollCycles"), s.pollCycles},
        {QStringLiteral("time"), QTime::currentTime().toString(QStringLiteral("HH:mm:ss"))}};
    if (c.cycleMs >= 0)
        status.insert(QStringLiteral("cycleMs"), qRound(c.cycleMs * 100) / 100.0);
    return status;
}

QJsonObject snapshotJson(Console &c)
{
    QList<QString> bitNames;
    QList<QString> wordNames;
    c.host.api.getRegListByType(0, bitNames);
    c.host.api.getRegListByType(1, wordNames);
    QJsonObject snapshot{
        {QStringLiteral("driver"), c.host.api.getVersion()},
        {QStringLiteral("status"), statusJson(c)},
        {QStringLiteral("watches"), watchesJson(c.host)},
        {QStringLiteral("frames"), QJsonArray::fromStringList(c.frameLines)},
        {QStringLiteral("registers"), QJsonArray::fromStringList(bitNames + wordNames)},
        {QStringLiteral("retry"), int(STREAM_RETRY_MS)}};
    QJsonArray writes;
    for (const QJsonObject &w : qAsConst(c.recentWrites))
        writes.append(w);
    snapshot.insert(QStringLiteral("writes"), writes);
    std::lock_guard<std::mutex> lock(c.feed.mutex);
    snapshot.insert(QStringLiteral("seq"), double(feedEnd(c.feed)));
    return snapshot;
}

QJsonObject refusal(const QString &message)
{
    return QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("message"), message}};
}

void remerge(Host &host)
{
    host.readBlocks = host.api.addrMerge(&host.keys);
    host.pollReadsInCycle = 0;
    host.cycleTimer.invalidate();
}

void publishWatches(Console &c)
{
    publish(c.feed, "watches", QJsonObject{{QStringLiteral("watches"), watchesJson(c.host)}});
}

QJsonObject addWatchFromPage(Console &c, const QString &text)
{
    WatchItem item;
    const QString error = parseWatch(c.host, text, item);
    if (!error.isEmpty())
        return refusal(error);
    if (item.count > MAX_WATCH_ELEMENTS)
        return refusal(QStringLiteral("'%1': the console shows at most %2 values per watch")
                           .arg(text)
                           .arg(int(MAX_WATCH_ELEMENTS)));
    for (const KEY_ADDRESS &key : qAsConst(c.host.keys)) {
        if (key.regName == item.regName && key.address == item.address && key.count == item.count)
            return refusal(QStringLiteral("'%1' is watched already").arg(text));
    }
    if (c.host.keys.size() >= MAX_WATCHES)
        return refusal(QStringLiteral("the console takes at most %1 watches; remove one first")
                           .arg(int(MAX_WATCHES)));
    addWatch(c.host, item);
    remerge(c.host);
    publishWatches(c);
    return QJsonObject{{QStringLiteral("ok"), true},
                       {QStringLiteral("message"), QStringLiteral("watching %1").arg(text)}};
}

QJsonObject removeWatchFromPage(Console &c, const QString &text)
{
    for (int i = 0; i < c.host.keys.size(); ++i) {
        if (watchText(c.host.keys.at(i)) != text)
            continue;
        c.host.keys.removeAt(i);
        remerge(c.host);
        publishWatches(c);
        return QJsonObject{
            {QStringLiteral("ok"), true},
            {QStringLiteral("message"), QStringLiteral("no longer watching %1").arg(text)}};
    }
    return refusal(QStringLiteral("'%1' is not watched").arg(text));
}

QString valuesText(const QVector<int> &values)
{
    QStringList parts;
    for (int v : values)
        parts << QString::number(v);
    return parts.join(QLatin1Char(','));
}

QJsonObject writeJson(int tag, const QString &text, const QString &state, const QString &message)
{
    return QJsonObject{
        {QStringLiteral("id"), tag},
        {QStringLiteral("text"), text},
        {QStringLiteral("state"), state},
        {QStringLiteral("message"), message},
        {QStringLiteral("time"), QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz"))}};
}

void rememberWrite(Console &c, const QJsonObject &write)
{
    const int id = write.value(QStringLiteral("id")).toInt();
    for (int i = 0; i < c.recentWrites.size(); ++i) {
        if (c.recentWrites.at(i).value(QStringLiteral("id")).toInt() == id) {
            c.recentWrites[i] = write;
            publish(c.feed, "write", write);
            return;
        }
    }
    c.recentWrites.prepend(write);
    while (c.recentWrites.size() > WRITES_KEPT)
        c.recentWrites.removeLast();
    publish(c.feed, "write", write);
}

QJsonObject writeFromPage(Console &c, const QString &target, const QString &values)
{
    const QString text = QStringLiteral("%1=%2").arg(target, values);
    WriteItem item;
    const QString error = parseWrite(c.host, text, item);
    if (!error.isEmpty())
        return refusal(error);
    if (item.values.size() > MAX_WRITE_VALUES)
        return refusal(QStringLiteral("the console writes at most %1 values at once")
                           .arg(int(MAX_WRITE_VALUES)));
    const int tag = queueWriteItem(c.host, item);
    const QString shown = QStringLiteral("%1 = %2").arg(target, valuesText(item.values));
    const QJsonObject write = writeJson(tag, shown, QStringLiteral("pending"),
                                        QStringLiteral("waiting for the PLC's answer"));
    c.pendingWrites.append(PendingWrite{tag, shown, item});
    rememberWrite(c, write);
    QJsonObject answer = write;
    answer.insert(QStringLiteral("ok"), true);
    return answer;
}

// Reports each write once the driver has settled all of its frames.
void settleWrites(Console &c)
{
    for (int i = 0; i < c.pendingWrites.size();) {
        const PendingWrite &p = c.pendingWrites.at(i);
        const WriteRecord record = c.host.writes.value(p.tag);
        if (!record.settled()) {
            ++i;
            continue;
        }
        QJsonObject write;
        if (record.localOnly)
            write = writeJson(
                p.tag, p.text, QStringLiteral("local"),
                QStringLiteral("kept in the driver's image only (local-write-only property)"));
        else if (record.failed == 0)
            write = writeJson(p.tag, p.text, QStringLiteral("landed"),
                              QStringLiteral("the PLC acknowledged the write"));
        else
            write = writeJson(
                p.tag, p.text, QStringLiteral("failed"),
                QStringLiteral("the PLC did not confirm the write; the value fell back to %1")
                    .arg(valuesText(shownValues(c.host, p.item.regName, p.item.address,
                                                p.item.values.size()))));
        c.pendingWrites.removeAt(i);
        rememberWrite(c, write);
    }
}

void keepFrameLine(Console &c, const QString &line)
{
    c.frameLines.append(line);
    while (c.frameLines.size() > FRAME_LINES_KEPT)
        c.frameLines.removeFirst();
    c.unsentFrameLines.append(line);
    while (c.unsentFrameLines.size() > FRAME_LINES_KEPT)
        c.unsentFrameLines.removeFirst();
}

// Runs between two exchanges of the loop, with no frame in flight.
void serveHostSide(Console &c)
{
    runJobs(c);
    settleWrites(c);
    const qint64 now = c.clock.elapsed();
    if (!c.unsentFrameLines.isEmpty() && now - c.lastFramesMs >= FRAMES_PERIOD_MS) {
        publish(
            c.feed, "frames",
            QJsonObject{{QStringLiteral("lines"), QJsonArray::fromStringList(c.unsentFrameLines)}});
        c.unsentFrameLines.clear();
        c.lastFramesMs = now;
    }
    if (now - c.lastStatusMs >= STATUS_PERIOD_MS) {
        sampleRates(c);
        publish(c.feed, "status", statusJson(c));
        c.lastStatusMs = now;
    }
}

// ---------------------------------------------------------------------------
// HTTP side. Server threads: only the feed, the job queue and constants.

void replyJson(httplib::Response &res, int status, const QJsonObject &body)
{
    res.status = status;
    res.set_content(compactJson(body).toStdString(), JSON_TYPE);
}

void replyRefusal(httplib::Response &res, int status, const QString &message)
{
    replyJson(res, status, refusal(message));
}

bool isLoopbackAddress(const QString &address)
{
    return QHostAddress(address).isLoopback();
}

QString makeAccessToken()
{
    QByteArray bytes(TOKEN_BYTES, '\0');
    for (char &b : bytes)
        b = char(QRandomGenerator::system()->bounded(256));
    return QString::fromLatin1(bytes.toHex());
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
    if (isLoopbackAddress(c.options.address)) {
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

// Reads the named string fields of a JSON object body. On bad input the
// response is set and false returned.
bool readFields(const httplib::Request &req, httplib::Response &res,
                std::initializer_list<const char *> names, QStringList &out)
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
        if (!value.isString() || text.isEmpty()) {
            replyRefusal(res, HTTP_BAD_REQUEST,
                         QStringLiteral("'%1' is missing").arg(QLatin1String(name)));
            return false;
        }
        if (text.size() > MAX_TEXT_CHARS) {
            replyRefusal(res, HTTP_BAD_REQUEST,
                         QStringLiteral("'%1' is longer than %2 characters")
                             .arg(QLatin1String(name))
                             .arg(int(MAX_TEXT_CHARS)));
            return false;
        }
        for (const QChar ch : text) {
            if (!ch.isPrint()) {
                replyRefusal(res, HTTP_BAD_REQUEST,
                             QStringLiteral("'%1' holds a character that is not allowed")
                                 .arg(QLatin1String(name)));
                return false;
            }
        }
        out << text;
    }
    return true;
}

void answerFromHost(Console &c, httplib::Response &res, std::function<QJsonObject()> work)
{
    QJsonObject answer;
    if (!callHost(c, std::move(work), answer)) {
        replyRefusal(res, HTTP_UNAVAILABLE,
                     QStringLiteral("the communication loop did not answer; try again"));
        return;
    }
    const bool ok = answer.value(QStringLiteral("ok")).toBool(true);
    replyJson(res, ok ? HTTP_OK : HTTP_BAD_REQUEST, answer);
}

struct StreamState {
    quint64 next = 0;
    bool needSnapshot = true;
};

// One piece of a page's event stream: a snapshot first (and again when the
// page fell too far behind), then the events as they come, or a comment
// when none came for a while. False ends the stream.
bool streamSome(Console &c, StreamState &s, httplib::DataSink &sink)
{
    if (s.needSnapshot) {
        QJsonObject snapshot;
        if (!callHost(
                c, [&c]() { return snapshotJson(c); }, snapshot))
            return false;
        s.next = quint64(snapshot.value(QStringLiteral("seq")).toDouble());
        s.needSnapshot = false;
        const std::string event = "retry: " + std::to_string(int(STREAM_RETRY_MS)) + "\n" +
                                  encodeEvent("snapshot", snapshot);
        return sink.write(event.data(), event.size());
    }
    std::string out;
    {
        std::unique_lock<std::mutex> lock(c.feed.mutex);
        c.feed.changed.wait_for(lock, std::chrono::milliseconds(STREAM_IDLE_MS),
                                [&]() { return c.feed.stopping || feedEnd(c.feed) > s.next; });
        if (c.feed.stopping)
            return false;
        if (s.next < c.feed.firstSeq) {
            s.needSnapshot = true;
            return true;
        }
        for (quint64 i = s.next - c.feed.firstSeq; i < c.feed.events.size(); ++i)
            out += c.feed.events[i];
        s.next = feedEnd(c.feed);
    }
    if (out.empty())
        out = ": idle\n\n";
    return sink.write(out.data(), out.size());
}

void serveEvents(Console &c, httplib::Response &res)
{
    {
        std::lock_guard<std::mutex> lock(c.feed.mutex);
        if (c.feed.streams >= MAX_EVENT_STREAMS) {
            replyRefusal(res, HTTP_UNAVAILABLE,
                         QStringLiteral("too many console pages are open; close one"));
            return;
        }
        ++c.feed.streams;
    }
    auto state = std::make_shared<StreamState>();
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [&c, state](size_t, httplib::DataSink &sink) { return streamSome(c, *state, sink); },
        [&c](bool) {
            std::lock_guard<std::mutex> lock(c.feed.mutex);
            --c.feed.streams;
        });
}

void setUpRoutes(Console &c)
{
    httplib::Server &s = c.server;
    s.new_task_queue = []() { return new httplib::ThreadPool(SERVER_THREADS); };
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
        answerFromHost(c, res, [&c]() { return snapshotJson(c); });
    });
    s.Post("/api/watch", [&c](const httplib::Request &req, httplib::Response &res) {
        QStringList f;
        if (readFields(req, res, {"text"}, f))
            answerFromHost(c, res, [&c, f]() { return addWatchFromPage(c, f[0]); });
    });
    s.Post("/api/unwatch", [&c](const httplib::Request &req, httplib::Response &res) {
        QStringList f;
        if (readFields(req, res, {"text"}, f))
            answerFromHost(c, res, [&c, f]() { return removeWatchFromPage(c, f[0]); });
    });
    s.Post("/api/write", [&c](const httplib::Request &req, httplib::Response &res) {
        QStringList f;
        if (readFields(req, res, {"target", "values"}, f))
            answerFromHost(c, res, [&c, f]() { return writeFromPage(c, f[0], f[1]); });
    });
    s.set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty())
            replyRefusal(res, res.status, QStringLiteral("no such page"));
    });
}

QString urlHost(const QString &address)
{
    return address.contains(QLatin1Char(':')) ? QStringLiteral("[%1]").arg(address) : address;
}

} // namespace

QString parseConsoleOptions(const QString &target, const QString &token, ConsoleOptions &out)
{
    const QString usage = QStringLiteral("--http '%1': expected [ADDRESS:]PORT, e.g. 8080, "
                                         "127.0.0.1:0 or [::1]:8080")
                              .arg(target);
    ConsoleOptions o;
    QString portText = target;
    const int colon = target.lastIndexOf(QLatin1Char(':'));
    if (colon >= 0) {
        o.address = target.left(colon);
        portText = target.mid(colon + 1);
        if (o.address.startsWith(QLatin1Char('[')) && o.address.endsWith(QLatin1Char(']')))
            o.address = o.address.mid(1, o.address.size() - 2);
        else if (o.address.contains(QLatin1Char(':')))
            return usage; // an IPv6 address goes in brackets
    }
    bool ok = false;
    const uint port = portText.toUInt(&ok);
    if (!ok || port > 65535)
        return usage;
    if (o.address == QLatin1String("localhost"))
        o.address = QStringLiteral("127.0.0.1");
    QHostAddress parsed;
    if (!parsed.setAddress(o.address))
        return QStringLiteral("--http '%1': '%2' is not an IP address").arg(target, o.address);
    o.address = parsed.toString();
    o.port = quint16(port);
    static const QRegularExpression tokenChars(QStringLiteral("^[A-Za-z0-9._~-]{8,128}$"));
    if (!token.isEmpty() && !tokenChars.match(token).hasMatch())
        return QStringLiteral("--http-token: use 8 to 128 letters, digits, '-', '_', '.' or '~'");
    o.token = token;
    if (o.token.isEmpty() && !isLoopbackAddress(o.address))
        o.token = makeAccessToken();
    out = o;
    return QString();
}

void ConsoleStop::operator()(Console *c) const
{
    if (!c)
        return;
    {
        std::lock_guard<std::mutex> lock(c->jobsMutex);
        c->stopping = true;
        c->jobs.clear();
    }
    {
        std::lock_guard<std::mutex> lock(c->feed.mutex);
        c->feed.stopping = true;
    }
    c->feed.changed.notify_all();
    c->server.stop();
    if (c->serverThread.joinable())
        c->serverThread.join();
    c->host.config.traceSink = nullptr;
    c->host.config.noteSink = nullptr;
    c->host.config.beforeExchange = nullptr;
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
    c->clock.start();
    setUpRoutes(*c);

    const std::string address = options.address.toStdString();
    int port = options.port;
    if (port == 0)
        port = c->server.bind_to_any_port(address);
    else if (!c->server.bind_to_port(address, port))
        port = -1;
    if (port <= 0) {
        *error = QStringLiteral("console: cannot listen on %1:%2 (port in use, or not an address "
                                "of this machine)")
                     .arg(urlHost(options.address))
                     .arg(options.port);
        return ConsoleHandle();
    }
    c->port = quint16(port);

    Console *raw = c.get();
    host.config.traceSink = [raw](const QString &line) { keepFrameLine(*raw, line); };
    host.config.noteSink = [raw](const Notification &note) {
        publish(raw->feed, "value",
                QJsonObject{{QStringLiteral("key"), elementKey(note.name, note.address)},
                            {QStringLiteral("value"), note.value},
                            {QStringLiteral("time"),
                             note.wallTime.toString(QStringLiteral("HH:mm:ss.zzz"))}});
    };
    host.config.beforeExchange = [raw]() { serveHostSide(*raw); };
    c->serverThread = std::thread([raw]() { raw->server.listen_after_bind(); });

    *url = QStringLiteral("http://%1:%2/").arg(urlHost(options.address)).arg(port);
    if (!options.token.isEmpty())
        *url += QStringLiteral("?token=%1").arg(options.token);
    return c;
}

} // namespace xbchost
