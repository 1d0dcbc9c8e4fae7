// The web view's server: guards (Host, Origin, body size), the JSON API over
// hosttv, the page's files, and the event streams fed by one watcher thread.
#include "web/server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <httplib.h>
#include <iterator>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "hosttv/json.h"
#include "web/address.h"
#include "web/hub.h"

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

// A regular file of at most max bytes, or nothing; no more than that is read.
std::string ReadWhole(const std::string &path, size_t max)
{
    std::ifstream in(path, std::ios::binary);
    std::string text;
    char chunk[1 << 16];
    while (text.size() <= max && (in.read(chunk, sizeof chunk) || in.gcount() > 0))
        text.append(chunk, static_cast<size_t>(in.gcount()));
    return text.size() > max ? std::string() : text;
}

// ---- one request, read within limits ------------------------------------------

// What a client may send before it is answered. httplib holds a chunked
// body, every header line and a slow client's thread without a bound of
// its own, so the server reads each request through LimitedStream.
constexpr size_t kMaxRequestLine = 8 * 1024;
constexpr size_t kMaxHead = 32 * 1024; // the request line and every header line
constexpr size_t kMaxHeaders = 100;
constexpr auto kRequestDeadline = std::chrono::seconds(10); // the whole request, body included
constexpr auto kWriteWait = std::chrono::seconds(5);

// Why a request was cut off while it was read; the answer says so.
enum class Refusal { kNone, kLineTooLong, kHeadTooLarge, kBodyTooLarge, kTooSlow, kNulInHead };

int RefusalStatus(Refusal r)
{
    switch (r) {
    case Refusal::kLineTooLong: return 414;
    case Refusal::kHeadTooLarge: return 431;
    case Refusal::kBodyTooLarge: return 413;
    case Refusal::kTooSlow: return 408;
    default: return 400;
    }
}

std::string RefusalText(Refusal r, size_t maxBody)
{
    switch (r) {
    case Refusal::kLineTooLong: return "request line over the limit of " + std::to_string(kMaxRequestLine) + " bytes";
    case Refusal::kHeadTooLarge:
        return "request headers over the limit of " + std::to_string(kMaxHeaders) + " lines or " +
               std::to_string(kMaxHead) + " bytes";
    case Refusal::kBodyTooLarge: return "request body over the limit of " + std::to_string(maxBody) + " bytes";
    case Refusal::kTooSlow:
        return "request not received within " +
               std::to_string(std::chrono::duration_cast<std::chrono::seconds>(kRequestDeadline).count()) + " s";
    case Refusal::kNulInHead: return "a NUL byte in the request line or headers";
    default: return "malformed request";
    }
}

// A connection's socket as httplib reads and writes it: every byte of the
// request is counted against the limits and must arrive before the
// deadline; past them a read fails and httplib gives up on the request.
class LimitedStream : public httplib::Stream {
public:
    LimitedStream(int sock, size_t maxBody) : m_sock(sock), m_maxBody(maxBody) {}

    bool is_readable() const override { return m_pos < m_end || Wait(POLLIN, std::chrono::milliseconds(0)); }
    bool is_writable() const override { return Wait(POLLOUT, kWriteWait); }

    ssize_t read(char *ptr, size_t size) override
    {
        if (m_refusal != Refusal::kNone)
            return -1;
        if (m_pos == m_end) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - Clock::now());
            if (left.count() <= 0 || !Wait(POLLIN, left)) {
                m_refusal = Refusal::kTooSlow;
                return -1;
            }
            const ssize_t n = recv(m_sock, m_buffer, sizeof m_buffer, 0);
            if (n <= 0)
                return n;
            m_pos = 0;
            m_end = static_cast<size_t>(n);
        }
        const size_t n = std::min(size, m_end - m_pos);
        for (size_t i = 0; i < n; ++i)
            if (!Count(m_buffer[m_pos + i]))
                return -1;
        std::memcpy(ptr, m_buffer + m_pos, n);
        m_pos += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char *ptr, size_t size) override
    {
        if (!Wait(POLLOUT, kWriteWait))
            return -1;
        const ssize_t n = send(m_sock, ptr, size, MSG_NOSIGNAL);
        if (n > 0)
            m_nWritten += static_cast<size_t>(n);
        return n;
    }

    void get_remote_ip_and_port(std::string &ip, int &port) const override { Address(getpeername, ip, port); }
    void get_local_ip_and_port(std::string &ip, int &port) const override { Address(getsockname, ip, port); }
    socket_t socket() const override { return m_sock; }

    Refusal Refused() const { return m_refusal; }
    size_t Written() const { return m_nWritten; }

private:
    // One byte of the request against the limits.
    bool Count(char c)
    {
        if (m_bInBody) {
            // Chunked framing included; a body that took more is refused after it is read.
            if (++m_nBody > 2 * m_maxBody + 4096)
                m_refusal = Refusal::kBodyTooLarge;
        } else if (c == '\0') {
            m_refusal = Refusal::kNulInHead;
        } else if (++m_nHead > kMaxHead) {
            m_refusal = Refusal::kHeadTooLarge;
        } else if (c == '\n') {
            m_bInBody = m_nLine == 0; // an empty line ends the head
            m_nLine = 0;
            if (++m_nLines > kMaxHeaders + 2) // with the request line and the empty one
                m_refusal = Refusal::kHeadTooLarge;
        } else if (c != '\r' && ++m_nLine > kMaxRequestLine && m_nLines == 0) {
            m_refusal = Refusal::kLineTooLong;
        }
        return m_refusal == Refusal::kNone;
    }

    bool Wait(short events, std::chrono::milliseconds wait) const
    {
        pollfd p{m_sock, events, 0};
        int n;
        while ((n = poll(&p, 1, static_cast<int>(wait.count()))) < 0 && errno == EINTR) {}
        return n > 0 && !(p.revents & (POLLERR | POLLNVAL)) && (p.revents & events || p.revents & POLLHUP);
    }

    template <typename Get>
    void Address(Get get, std::string &ip, int &port) const
    {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        char text[INET6_ADDRSTRLEN] = {};
        port = 0;
        if (get(m_sock, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            return;
        if (address.ss_family == AF_INET) {
            const auto *a = reinterpret_cast<const sockaddr_in *>(&address);
            inet_ntop(AF_INET, &a->sin_addr, text, sizeof text);
            port = ntohs(a->sin_port);
        } else if (address.ss_family == AF_INET6) {
            const auto *a = reinterpret_cast<const sockaddr_in6 *>(&address);
            inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof text);
            port = ntohs(a->sin6_port);
        }
        ip = text;
    }

    int m_sock;
    size_t m_maxBody;
    Clock::time_point m_deadline = Clock::now() + kRequestDeadline;
    char m_buffer[4096];
    size_t m_pos = 0, m_end = 0;
    bool m_bInBody = false;
    size_t m_nHead = 0, m_nLine = 0, m_nLines = 0, m_nBody = 0, m_nWritten = 0;
    Refusal m_refusal = Refusal::kNone;
};

// The request this thread reads, for the error handler's answer.
thread_local const LimitedStream *t_stream = nullptr;

// httplib's server with one request per connection, read through
// LimitedStream: a page's requests are few, and a connection that cannot
// be reused cannot be held open between them.
class LimitedServer : public httplib::Server {
public:
    explicit LimitedServer(size_t maxBody) : m_maxBody(maxBody) {}

private:
    bool process_and_close_socket(socket_t sock) override
    {
        LimitedStream stream(sock, m_maxBody);
        t_stream = &stream;
        bool bClosed = false;
        const bool bOk = process_request(stream, true, bClosed, [](httplib::Request &) {});
        if (stream.Refused() != Refusal::kNone && stream.Written() == 0) {
            // Refused before httplib could answer (the request line).
            const std::string body = hosttv::Dump({{"error", RefusalText(stream.Refused(), m_maxBody)}});
            const std::string head =
                "HTTP/1.1 " + std::to_string(RefusalStatus(stream.Refused())) +
                (stream.Refused() == Refusal::kTooSlow       ? " Request Timeout"
                 : stream.Refused() == Refusal::kLineTooLong ? " URI Too Long"
                                                             : " Bad Request") +
                "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
                "\r\nConnection: close\r\n\r\n";
            stream.write((head + body).data(), head.size() + body.size());
        }
        t_stream = nullptr;
        // What the client still sends is read and dropped for a moment, so
        // that closing does not reset the connection before it reads the answer.
        shutdown(sock, SHUT_WR);
        const auto until = Clock::now() + std::chrono::milliseconds(200);
        char sink[4096];
        for (size_t n = 0; n < (1u << 20) && Clock::now() < until;) {
            pollfd p{sock, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0)
                continue;
            const ssize_t got = recv(sock, sink, sizeof sink, 0);
            if (got <= 0)
                break;
            n += static_cast<size_t>(got);
        }
        close(sock);
        return bOk;
    }

    size_t m_maxBody;
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
    if (!hosttv::ParseInt(port, listen.port) || listen.port > 65535 || !IsIpLiteral(listen.host))
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
    LimitedServer http;
    Hub hub;
    int port = 0;
    std::atomic<int> nStreams{0};
    std::thread watcher;

    explicit Impl(Options o) : options(std::move(o)), http(options.maxBody) {}

    bool HostAllowed(const std::string &hostPort) const
    {
        char machine[256] = {};
        gethostname(machine, sizeof machine - 1);
        return hostweb::HostAllowed(options.listen.host, port, hostPort, machine);
    }

    httplib::Server::HandlerResponse Guard(const httplib::Request &req, httplib::Response &res) const
    {
        if (req.path.find('\0') != std::string::npos) {
            ReplyError(res, 400, "refused: a NUL byte in the path");
            return httplib::Server::HandlerResponse::Handled;
        }
        // Refused before httplib reads it: it would read a body over the limit to drop it.
        size_t length = 0;
        if (req.has_header("Content-Length") &&
            (!hosttv::ParseInt(req.get_header_value("Content-Length"), length) || length > options.maxBody)) {
            ReplyError(res, 413, "request body over the limit of " + std::to_string(options.maxBody) + " bytes");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (const char *allow = Allowed(req)) {
            res.set_header("Allow", allow);
            ReplyError(res, 405, "refused: " + req.method + " " + req.path + " takes " + allow);
            return httplib::Server::HandlerResponse::Handled;
        }
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

    // The methods a path takes when the request's is not one of them; null when it is.
    static const char *Allowed(const httplib::Request &req)
    {
        static const char *const kGets[] = {"/api/state", "/api/info", "/api/icon", "/api/events", "/api/pages"};
        const bool bApi = req.path.compare(0, 5, "/api/") == 0;
        const bool bGet = !bApi || std::find(std::begin(kGets), std::end(kGets), req.path) != std::end(kGets);
        const bool bRead = req.method == "GET" || req.method == "HEAD";
        if (bGet)
            return bRead ? nullptr : "GET, HEAD";
        return req.method == "POST" ? nullptr : "POST";
    }

    // A POST of the API: its body is one JSON object; hosttv's refusals
    // become 400 (a wrong request) or 409 (not now).
    void Post(const char *path, std::function<JsonValue(const JsonValue &)> action)
    {
        http.Post(path, [this, action](const httplib::Request &req, httplib::Response &res) {
            try {
                if (req.body.size() > options.maxBody)
                    throw ApiError{413, "request body over the limit of " + std::to_string(options.maxBody) + " bytes"};
                JsonValue body;
                try {
                    body = JsonValue::parse(req.body);
                } catch (const JsonValue::parse_error &e) {
                    throw ApiError{400, "malformed JSON at byte " + std::to_string(e.byte)};
                } catch (const JsonValue::exception &) {
                    // nlohmann's texts name its own internals; a number like 1e400 ends here.
                    throw ApiError{400, "malformed JSON: a number out of range"};
                }
                if (!body.is_object())
                    throw ApiError{400, "the request must be a JSON object"};
                Reply(res, 200, action(body));
            } catch (const ApiError &e) {
                ReplyError(res, e.status, e.text);
            } catch (const hosttv::Error &e) {
                ReplyError(res, e.kind() == hosttv::Error::Kind::kBadRequest ? 400 : 409, e.what());
            } catch (const std::exception &e) {
                // A library's text is for the person at the terminal, not for the page.
                std::fprintf(stderr, "lumora-tv web: %s failed: %s\n", req.path.c_str(), e.what());
                ReplyError(res, 500, "the server could not do it; its terminal says why");
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
            hosttv::EventOutcome sent = hosttv::SendEvent(number, text, std::chrono::milliseconds(500));
            for (auto &r : sent.shown)
                r = hosttv::AsDrawn(r);
            JsonValue outcome = hosttv::ToJson(sent);
            hub.AddActivity({{"kind", "event"}, {"number", number}, {"outcome", outcome}});
            return outcome;
        });
        Post("/api/stop", [](const JsonValue &) {
            return JsonValue{{"pid", hosttv::StopService(std::chrono::seconds(15))}};
        });
        Post("/api/start", [this](const JsonValue &body) {
            if (!options.service)
                throw ApiError{409, "this page's server cannot start the service: use lumora-tv run"};
            const std::string scenario = body.contains("scenario") ? StringField(body, "scenario") : "";
            const int pid = options.service->Start(scenario);
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
        // A page refused for the cap asks here until a place is free.
        http.Get("/api/pages", [this](const httplib::Request &, httplib::Response &res) {
            Reply(res, 200, {{"open", nStreams.load()}, {"max", options.maxStreams}});
        });
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
        if (!hosttv::ParseInt(req.get_param_value("item"), item) ||
            !hosttv::ParseInt(req.get_param_value("button"), button))
            return ReplyError(res, 400, "give item and button as whole numbers");
        std::optional<std::string> path;
        for (const auto &r : hub.OnScreen())
            if (r.itemId == item && button >= 0 && button < r.Buttons())
                path = r.buttonIcon[button];
        if (!path)
            return ReplyError(res, 404,
                              "no icon of button " + std::to_string(button) + " of a pop-up #" + std::to_string(item) +
                                  " on screen");
        std::error_code ec;
        const fs::path file = fs::canonical(*path, ec);
        const std::string root = fs::canonical(hosttv::Root(), ec).string() + "/";
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
                              "too many open pages (" + std::to_string(options.maxStreams) +
                                  "); close one: a refused page retries by itself");
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
    // Pages' streams, room for the requests of every page, and for as many
    // clients that are slow to send theirs (each is cut off at the deadline).
    const int nThreads = m->options.maxStreams + 8 + 16;
    http.new_task_queue = [nThreads] { return new httplib::ThreadPool(static_cast<size_t>(nThreads)); };
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
            if (t_stream && t_stream->Refused() != Refusal::kNone) {
                ReplyError(res, RefusalStatus(t_stream->Refused()), RefusalText(t_stream->Refused(), maxBody));
                return httplib::Server::HandlerResponse::Handled;
            }
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
