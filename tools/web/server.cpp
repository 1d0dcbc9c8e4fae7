// The web view's server: guards (Host, Origin, body size), the JSON API over
// hosttv, the page's files, and the event streams fed by one watcher thread.
#include "web/server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <httplib.h>
#include <iterator>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "hosttv/json.h"
#include "tvhost/tvhost.h"

namespace fs = std::filesystem;

namespace hostweb {

using hosttv::JsonValue;
using Clock = std::chrono::steady_clock;

namespace {

// A request the API refuses, with its HTTP status.
struct ApiError {
    int status;
    std::string text;
};

bool IsIpLiteral(const std::string &host)
{
    unsigned char buffer[sizeof(in6_addr)];
    return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

bool IsLoopback(const std::string &host)
{
    return host == "::1" || host.compare(0, 4, "127.") == 0;
}

bool IsWildcard(const std::string &host)
{
    return host == "0.0.0.0" || host == "::";
}

// "host:port" as a browser writes it in Host and Origin.
std::string HostPort(const std::string &host, int port)
{
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string Now()
{
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &tm);
    return text;
}

std::string ReadWhole(const std::string &path, size_t max)
{
    std::ifstream in(path, std::ios::binary);
    std::string text;
    if (in)
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return text.size() > max ? std::string() : text;
}

// What every open page sees, and the pages waiting for it to change.
class Hub {
public:
    struct Cursor {
        uint64_t state = 0;    // the state version last sent
        uint64_t log = 0;      // the last log line sent
        bool bLogSent = false; // a first chunk went out: later ones continue it
        uint64_t logRun = 0;   // of the log as it was then
    };

    // The host TV as the watcher last saw it.
    void SetTv(JsonValue status, std::vector<tvhost::notifications::Record> popups)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_status = std::move(status);
        m_popups = std::move(popups);
        PublishLocked();
    }

    // Something a page did, for every page: a press and what it launched, an event and what it showed.
    void AddActivity(JsonValue entry)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        entry["time"] = Now();
        m_activity.push_back(std::move(entry));
        if (m_activity.size() > kMaxActivity)
            m_activity.pop_front();
        PublishLocked();
    }

    std::string State()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_state;
    }

    std::vector<tvhost::notifications::Record> OnScreen()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_popups;
    }

    // New records of the service's log; bRestarted: a new run began it afresh.
    void AddLog(const std::vector<hosttv::LogLine> &lines, bool bRestarted)
    {
        if (lines.empty() && !bRestarted)
            return;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (bRestarted) {
            m_log.clear();
            ++m_logRun;
        }
        for (const hosttv::LogLine &l : lines) {
            m_log.push_back({++m_logSeq, hosttv::Dump({{"stamp", l.stamp},
                                                       {"level", std::string(1, l.level)},
                                                       {"pid", l.pid},
                                                       {"tid", l.tid},
                                                       {"tag", l.tag},
                                                       {"text", l.text}})});
            if (m_log.size() > kMaxLog)
                m_log.pop_front();
        }
        m_changed.notify_all();
    }

    // The next message of a stream: what changed since cursor, or a comment
    // after wait (a write is how a closed page is noticed); nothing once
    // the server stops.
    std::optional<std::string> Next(Cursor &cursor, std::chrono::milliseconds wait)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, wait, [&] { return m_bStopping || cursor.state != m_version || LogNews(cursor); });
        if (m_bStopping)
            return std::nullopt;
        std::string out;
        if (cursor.state != m_version) {
            cursor.state = m_version;
            out = "event: state\ndata: " + m_state + "\n\n";
        }
        if (LogNews(cursor)) {
            // A page that is new, or behind a restart, starts over with what is kept.
            const bool bAfresh = !cursor.bLogSent || cursor.logRun != m_logRun;
            std::string lines;
            size_t n = 0;
            for (const auto &entry : m_log) {
                if ((bAfresh || entry.first > cursor.log) && n++ < kMaxLogPerMessage) {
                    lines += (lines.empty() ? "" : ",") + entry.second;
                    cursor.log = entry.first;
                }
            }
            if (bAfresh && m_log.empty())
                cursor.log = m_logSeq;
            cursor.bLogSent = true;
            cursor.logRun = m_logRun;
            out += "event: log\ndata: {\"restarted\":" + std::string(bAfresh ? "true" : "false") + ",\"lines\":[" +
                   lines + "]}\n\n";
        }
        return out.empty() ? ": still here\n\n" : out;
    }

    // The watcher sleeps until its next poll, or until an action asks for one now.
    void Sleep(std::chrono::milliseconds wait)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_poked.wait_for(lock, wait, [&] { return m_bStopping || m_bPoked; });
        m_bPoked = false;
    }
    void Poke()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bPoked = true;
        m_poked.notify_all();
    }

    void Stop()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStopping = true;
        m_changed.notify_all();
        m_poked.notify_all();
    }
    bool Stopping()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_bStopping;
    }

private:
    static constexpr size_t kMaxActivity = 20;
    static constexpr size_t kMaxLog = 5000;
    static constexpr size_t kMaxLogPerMessage = 500;

    bool LogNews(const Cursor &cursor) const
    {
        return !cursor.bLogSent || cursor.logRun != m_logRun || (!m_log.empty() && m_log.back().first > cursor.log);
    }

    void PublishLocked()
    {
        JsonValue activity = JsonValue::array();
        for (const auto &a : m_activity)
            activity.push_back(a);
        std::string state = hosttv::Dump(
            {{"status", m_status}, {"popups", hosttv::ToJson(m_popups)}, {"activity", std::move(activity)}});
        if (state == m_state)
            return;
        m_state = std::move(state);
        ++m_version;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::condition_variable m_poked;
    JsonValue m_status = JsonValue::object();
    std::vector<tvhost::notifications::Record> m_popups;
    std::deque<JsonValue> m_activity;
    std::deque<std::pair<uint64_t, std::string>> m_log; // sequence number, the record as JSON
    uint64_t m_logSeq = 0;
    uint64_t m_logRun = 0; // bumped when a new run begins the log afresh
    std::string m_state = "{}";
    uint64_t m_version = 0; // streams wait for the watcher's first look
    bool m_bPoked = false;
    bool m_bStopping = false;
};

// Fields of a request's JSON object, each refused with what it must be.
int IntField(const JsonValue &body, const char *name)
{
    const auto it = body.find(name);
    if (it == body.end() || !it->is_number_integer())
        throw ApiError{400, std::string("\"") + name + "\" must be a whole number"};
    const auto value = it->get<long long>();
    if (value < INT32_MIN || value > INT32_MAX)
        throw ApiError{400, std::string("\"") + name + "\" is out of range"};
    return static_cast<int>(value);
}

std::string StringField(const JsonValue &body, const char *name)
{
    const auto it = body.find(name);
    if (it == body.end() || !it->is_string())
        throw ApiError{400, std::string("\"") + name + "\" must be a text"};
    return it->get<std::string>();
}

void Reply(httplib::Response &res, int status, const JsonValue &value)
{
    res.status = status;
    res.set_content(hosttv::Dump(value), "application/json");
}

void ReplyError(httplib::Response &res, int status, const std::string &text)
{
    Reply(res, status, {{"error", text}});
}

const char *MimeType(const fs::path &path)
{
    const std::string ext = path.extension().string();
    return ext == ".png"                     ? "image/png"
           : ext == ".jpg" || ext == ".jpeg" ? "image/jpeg"
           : ext == ".gif"                   ? "image/gif"
                                             : nullptr;
}

} // namespace

std::optional<Listen> ParseListen(const std::string &text)
{
    Listen listen;
    size_t colon = std::string::npos;
    if (!text.empty() && text[0] == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':')
            return std::nullopt;
        listen.host = text.substr(1, close - 1);
        colon = close + 1;
    } else {
        colon = text.rfind(':');
        if (colon == std::string::npos)
            return std::nullopt;
        listen.host = text.substr(0, colon);
        if (listen.host.find(':') != std::string::npos)
            return std::nullopt;
    }
    const std::string port = text.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    listen.port = std::stoi(port);
    if (listen.port > 65535 || !IsIpLiteral(listen.host))
        return std::nullopt;
    return listen;
}

std::string DefaultWwwDir()
{
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return (ec ? fs::path(".") : self.parent_path()) / "www";
}

struct Server::Impl {
    Options options;
    httplib::Server http;
    Hub hub;
    int port = 0;
    std::atomic<int> nStreams{0};
    std::thread watcher;

    explicit Impl(Options o) : options(std::move(o)) {}

    // Host names a browser on this machine may use for us; with a wildcard
    // address any address literal, localhost and the machine's name.
    bool HostAllowed(const std::string &hostPort) const
    {
        const std::string &host = options.listen.host;
        if (hostPort == HostPort(host, port))
            return true;
        if (IsLoopback(host) || IsWildcard(host)) {
            if (hostPort == HostPort("localhost", port))
                return true;
        }
        if (!IsWildcard(host))
            return false;
        const size_t colon = hostPort.rfind(':');
        if (colon == std::string::npos || hostPort.substr(colon + 1) != std::to_string(port))
            return false;
        std::string name = hostPort.substr(0, colon);
        if (name.size() > 2 && name.front() == '[' && name.back() == ']')
            name = name.substr(1, name.size() - 2);
        char machine[256] = {};
        gethostname(machine, sizeof machine - 1);
        return IsIpLiteral(name) || name == machine;
    }

    httplib::Server::HandlerResponse Guard(const httplib::Request &req, httplib::Response &res) const
    {
        const std::string host = req.get_header_value("Host");
        if (!HostAllowed(host)) {
            ReplyError(res, 403,
                       "refused: Host \"" + host + "\" is not this server's; open http://" +
                           HostPort(options.listen.host, port) + "/");
            return httplib::Server::HandlerResponse::Handled;
        }
        // Browsers name the page that sent a request; only our own page may drive the TV.
        if (req.has_header("Origin")) {
            const std::string origin = req.get_header_value("Origin");
            if (origin.compare(0, 7, "http://") != 0 || !HostAllowed(origin.substr(7))) {
                ReplyError(res, 403, "refused: a page from " + origin + " may not drive this TV");
                return httplib::Server::HandlerResponse::Handled;
            }
        }
        return httplib::Server::HandlerResponse::Unhandled;
    }

    // A POST of the API: its body is one JSON object; hosttv's refusals
    // become 400 (a wrong request) or 409 (not now).
    void Post(const char *path, std::function<JsonValue(const JsonValue &)> action)
    {
        http.Post(path, [this, action](const httplib::Request &req, httplib::Response &res) {
            try {
                JsonValue body;
                try {
                    body = JsonValue::parse(req.body);
                } catch (const JsonValue::parse_error &e) {
                    throw ApiError{400, std::string("malformed JSON: ") + e.what()};
                }
                if (!body.is_object())
                    throw ApiError{400, "the request must be a JSON object"};
                Reply(res, 200, action(body));
            } catch (const ApiError &e) {
                ReplyError(res, e.status, e.text);
            } catch (const hosttv::Error &e) {
                ReplyError(res, e.kind() == hosttv::Error::Kind::kBadRequest ? 400 : 409, e.what());
            } catch (const std::exception &e) {
                ReplyError(res, 500, e.what());
            }
            hub.Poke();
        });
    }

    void Routes()
    {
        Post("/api/press", [this](const JsonValue &body) {
            const int item = IntField(body, "item");
            const int button = IntField(body, "button");
            JsonValue press = hosttv::ToJson(hosttv::PressButton(item, button));
            hub.AddActivity({{"kind", "press"}, {"item", item}, {"button", button}, {"press", press}});
            return press;
        });
        Post("/api/timeout", [this](const JsonValue &body) {
            const int item = IntField(body, "item");
            hosttv::TimeOut(item);
            hub.AddActivity({{"kind", "timeout"}, {"item", item}});
            return JsonValue::object();
        });
        Post("/api/widget", [](const JsonValue &body) {
            const std::string action = StringField(body, "action");
            if (action == "install" || action == "uninstall")
                return hosttv::ToJson(hosttv::InstallWidget(action == "install").state);
            if (action == "launch")
                return hosttv::ToJson(hosttv::LaunchWidget());
            if (action == "close")
                return hosttv::ToJson(hosttv::CloseWidget());
            throw ApiError{400, "\"action\" must be install, uninstall, launch or close"};
        });
        Post("/api/language", [](const JsonValue &body) {
            const hosttv::SettingKey &key = hosttv::FindSettingKey(hosttv::kLanguageKey);
            hosttv::SetSetting(key, StringField(body, "language"));
            return JsonValue{{"language", hosttv::GetSetting(key).value_or("")}};
        });
        Post("/api/network", [](const JsonValue &body) {
            return JsonValue{{"network", hosttv::SetNetwork(StringField(body, "network"))}};
        });
        Post("/api/event", [this](const JsonValue &body) {
            const int number = IntField(body, "number");
            const std::string text = body.contains("sample") ? hosttv::EventSampleText(StringField(body, "sample"))
                                                             : StringField(body, "text");
            JsonValue outcome = hosttv::ToJson(hosttv::SendEvent(number, text, std::chrono::milliseconds(500)));
            hub.AddActivity({{"kind", "event"}, {"number", number}, {"outcome", outcome}});
            return outcome;
        });
        Post("/api/stop", [](const JsonValue &) {
            return JsonValue{{"pid", hosttv::StopService(std::chrono::seconds(15))}};
        });
        Post("/api/start", [this](const JsonValue &body) {
            if (!options.start)
                throw ApiError{409, "this page's server cannot start the service: use lumora-tv run"};
            const std::string scenario = body.contains("scenario") ? StringField(body, "scenario") : "";
            const int pid = options.start(scenario);
            hub.AddActivity({{"kind", "start"}, {"pid", pid}, {"scenario", scenario}});
            return JsonValue{{"pid", pid}};
        });
        Post("/api/reset", [](const JsonValue &) {
            hosttv::Reset();
            return JsonValue::object();
        });

        http.Get("/api/state", [this](const httplib::Request &, httplib::Response &res) {
            res.set_content(hub.State(), "application/json");
        });
        http.Get("/api/info", [this](const httplib::Request &, httplib::Response &res) { Reply(res, 200, Info()); });
        http.Get("/api/icon", [this](const httplib::Request &req, httplib::Response &res) { Icon(req, res); });
        http.Get("/api/events", [this](const httplib::Request &, httplib::Response &res) { Stream(res); });
    }

    JsonValue Info() const
    {
        JsonValue languages = JsonValue::array();
        for (const hosttv::Language &l : hosttv::Languages())
            languages.push_back({{"catalogue", l.catalogue}, {"value", l.value}});
        JsonValue scenarios = JsonValue::array();
        for (const std::string &name : hosttv::Scenarios())
            scenarios.push_back({{"name", name}, {"what", hosttv::ScenarioText(name)}});
        JsonValue events = JsonValue::array();
        for (const hosttv::EventKind &k : hosttv::EventKinds())
            events.push_back({{"number", k.number}, {"sample", k.sample}, {"what", k.what}});
        return {{"languages", languages},
                {"events", events},
                {"scenarios", scenarios},
                {"defaultScenario", std::string(hosttv::kDefaultScenario)},
                {"networks", {"wifi", "ethernet", "none", "auto"}},
                {"widget", std::string(hosttv::kWidgetApp)},
                {"log", hosttv::LogPath()}};
    }

    // A button's icon: only a file that a pop-up on screen names, inside the TV root.
    void Icon(const httplib::Request &req, httplib::Response &res)
    {
        int item = 0, button = 0;
        try {
            item = std::stoi(req.get_param_value("item"));
            button = std::stoi(req.get_param_value("button"));
        } catch (const std::exception &) {
            return ReplyError(res, 400, "give item and button as whole numbers");
        }
        std::optional<std::string> path;
        for (const auto &r : hub.OnScreen())
            if (r.itemId == item && button >= 0 && button < r.buttonCount && button < 3)
                path = r.buttonIcon[button];
        if (!path)
            return ReplyError(res, 404,
                              "no icon of button " + std::to_string(button) + " of a pop-up #" + std::to_string(item) +
                                  " on screen");
        std::error_code ec;
        const fs::path file = fs::canonical(*path, ec);
        const std::string root = fs::canonical(tvhost::Root(), ec).string() + "/";
        const char *mime = MimeType(file);
        if (ec || file.string().compare(0, root.size(), root) != 0 || !mime || !fs::is_regular_file(file, ec))
            return ReplyError(res, 404, "the icon is not an image inside the TV root");
        const std::string data = ReadWhole(file, 1 << 20);
        if (data.empty())
            return ReplyError(res, 404, "the icon cannot be read");
        res.set_content(data, mime);
    }

    // An event stream holds one of the pool's threads while the page is
    // open, so their number is capped below the pool's size.
    void Stream(httplib::Response &res)
    {
        if (nStreams.fetch_add(1) >= options.maxStreams) {
            --nStreams;
            return ReplyError(res, 503,
                              "too many open pages (" + std::to_string(options.maxStreams) + "); close one and reload");
        }
        auto cursor = std::make_shared<Hub::Cursor>();
        auto bFirst = std::make_shared<bool>(true);
        res.set_header("Cache-Control", "no-store");
        res.set_chunked_content_provider(
            "text/event-stream",
            [this, cursor, bFirst](size_t, httplib::DataSink &sink) {
                const std::optional<std::string> next = hub.Next(*cursor, std::chrono::seconds(1));
                if (!next)
                    return false;
                const std::string out = (*bFirst ? "retry: 1000\n\n" : "") + *next;
                *bFirst = false;
                return sink.write(out.data(), out.size());
            },
            [this](bool) { --nStreams; });
    }

    void Watch()
    {
        uint64_t logFrom = 0;
        while (!hub.Stopping()) {
            std::vector<tvhost::notifications::Record> popups;
            JsonValue status;
            try {
                const hosttv::Status s = hosttv::ReadStatus();
                status = hosttv::ToJson(s);
                // A service just started answers a moment later: no pop-ups yet.
                if (s.servicePid)
                    try {
                        popups = hosttv::Popups();
                    } catch (const hosttv::Error &) {}
            } catch (const std::exception &e) {
                status = {{"error", e.what()}};
            }
            hub.SetTv(std::move(status), std::move(popups));
            try {
                hosttv::LogChunk chunk;
                do {
                    chunk = hosttv::ReadLog(logFrom);
                    hub.AddLog(chunk.lines, chunk.bRestarted);
                    logFrom = chunk.next;
                } while (chunk.lines.size() >= 1000 && !hub.Stopping());
            } catch (const hosttv::Error &) {
                // An unreadable log shows as no news; the state above still flows.
            }
            hub.Sleep(options.poll);
        }
    }
};

Server::Server(Options options) : m(std::make_unique<Impl>(std::move(options)))
{
    httplib::Server &http = m->http;
    Impl *impl = m.get();
    // Pages' streams plus room for the requests of every page.
    const int nThreads = m->options.maxStreams + 8;
    http.new_task_queue = [nThreads] { return new httplib::ThreadPool(static_cast<size_t>(nThreads)); };
    // An idle keep-alive connection holds a thread too: let it go soon.
    http.set_keep_alive_timeout(2);
    // httplib's default also sets SO_REUSEPORT, which lets a second server
    // share a port in use instead of being told so.
    http.set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    });
    http.set_payload_max_length(m->options.maxBody);
    http.set_default_headers({
        {"Content-Security-Policy", "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
                                    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},
    });
    http.set_pre_routing_handler(
        [impl](const httplib::Request &req, httplib::Response &res) { return impl->Guard(req, res); });
    // httplib's own refusals (too large, unreadable, no such path) get a JSON text too.
    const size_t maxBody = m->options.maxBody;
    http.set_error_handler(
        httplib::Server::HandlerWithResponse([maxBody](const httplib::Request &req, httplib::Response &res) {
            if (!res.body.empty())
                return httplib::Server::HandlerResponse::Unhandled;
            std::string text = "request refused (HTTP " + std::to_string(res.status) + ")";
            if (res.status == 413)
                text = "request body over the limit of " + std::to_string(maxBody) + " bytes";
            else if (res.status == 404)
                text = "no such page: " + req.path;
            else if (res.status == 400)
                text = "malformed request";
            ReplyError(res, res.status, text);
            return httplib::Server::HandlerResponse::Handled;
        }));
    m->Routes();
    http.set_mount_point("/", m->options.wwwDir, {{"Cache-Control", "no-cache"}});
}

Server::~Server()
{
    Stop();
    if (m->watcher.joinable())
        m->watcher.join();
}

bool Server::Bind()
{
    // A page that closes mid-write must not end the process. A handler, not
    // SIG_IGN: an ignored signal would stay ignored in a service started from here.
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGPIPE, &action, nullptr);
    if (m->options.listen.port == 0) {
        m->port = m->http.bind_to_any_port(m->options.listen.host);
        return m->port > 0;
    }
    m->port = m->options.listen.port;
    return m->http.bind_to_port(m->options.listen.host, m->port);
}

int Server::Port() const
{
    return m->port;
}

std::vector<std::string> Server::Urls() const
{
    const std::string &host = m->options.listen.host;
    std::vector<std::string> urls;
    if (IsWildcard(host)) {
        urls.push_back("http://" + HostPort("127.0.0.1", m->port) + "/");
        char machine[256] = {};
        if (gethostname(machine, sizeof machine - 1) == 0 && machine[0])
            urls.push_back("http://" + HostPort(machine, m->port) + "/");
    } else {
        urls.push_back("http://" + HostPort(host, m->port) + "/");
    }
    return urls;
}

bool Server::Serve()
{
    m->watcher = std::thread([this] { m->Watch(); });
    return m->hub.Stopping() || m->http.listen_after_bind() || m->hub.Stopping();
}

void Server::Stop()
{
    m->hub.Stop();
    m->http.stop();
}

} // namespace hostweb
