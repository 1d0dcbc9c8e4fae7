#include "inject_server.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qorv_sim_client.h"
#include "trace.h"
#include "tvhost/parse.h"

namespace qorvsim {

namespace {

using tvhost::localsocket::Frame;

constexpr size_t kMaxHeader = 128;
constexpr size_t kMaxClients = 32;
// A hostile-input document takes a while to arrive under a sanitizer.
constexpr int kRequestSeconds = 60;

struct Header {
    size_t nLength = 0; // of the header line, its new line included
    int nEvent = 0;
    size_t n1 = 0;
    size_t n2 = 0;
};

// Reads the header line at the start of input; the error answer when it is
// not a good one. Its words are separated by one blank each; every number is
// decimal, whole, and in range.
bool ParseHeader(std::string_view input, Header &header, std::string &strError)
{
    std::string_view line = input.substr(0, std::min(input.find('\n'), kMaxHeader + 1));
    std::string_view words[4];
    size_t nWords = 0;
    for (; nWords < 4 && !line.empty(); ++nWords) {
        const size_t blank = line.find(' ');
        words[nWords] = line.substr(0, blank);
        line = blank == std::string_view::npos ? std::string_view() : line.substr(blank + 1);
    }
    if (input.find('\n') > kMaxHeader || nWords != 4 || !line.empty() || words[0] != "EVENT") {
        strError = "ERROR expected: EVENT <number> <bytes of text 1> <bytes of text 2>\n";
        return false;
    }
    if (!tvhost::ParseInt(words[1], header.nEvent)) {
        strError = "ERROR bad event number\n";
        return false;
    }
    if (!tvhost::ParseInt(words[2], header.n1, size_t{0}, kMaxText) ||
        !tvhost::ParseInt(words[3], header.n2, size_t{0}, kMaxText)) {
        strError = "ERROR bad text size\n";
        return false;
    }
    header.nLength = input.find('\n') + 1;
    return true;
}

Frame OneEvent(std::string_view input, bool bNoMore)
{
    const size_t nEol = input.find('\n');
    if (nEol == std::string_view::npos) {
        if (input.size() > kMaxHeader)
            return Frame::Refused("ERROR request line too long\n");
        return bNoMore ? Frame::Refused("") : Frame::Incomplete();
    }
    Header header;
    std::string strError;
    if (!ParseHeader(input, header, strError))
        return Frame::Refused(strError);
    if (input.size() - header.nLength < header.n1 + header.n2)
        return bNoMore ? Frame::Refused("") : Frame::Incomplete(); // the texts are still on their way
    return Frame::Whole(header.nLength + header.n1 + header.n2);
}

} // namespace

bool InjectServer::Open(const std::string &strPath, Deliver deliver)
{
    auto handle = [deliver = std::move(deliver)](const std::string &request) {
        Header header;
        std::string strError;
        ParseHeader(request, header, strError); // whole requests were parsed before
        std::optional<int> nResult = deliver(header.nEvent, request.substr(header.nLength, header.n1),
                                             request.substr(header.nLength + header.n1, header.n2));
        if (!nResult)
            return tvhost::localsocket::Answer{"", true};
        return tvhost::localsocket::Answer{"RESULT " + std::to_string(*nResult) + "\n", false};
    };
    tvhost::localsocket::ServerOptions options;
    options.nIdleSeconds = 0; // a connection may wait between its requests
    options.nRequestSeconds = kRequestSeconds;
    options.nMaxConnections = kMaxClients;
    options.strBusyAnswer = "ERROR too many connections\n";
    int nErrno = 0;
    switch (m_server.Start(strPath, OneEvent, handle, options, nErrno)) {
    case tvhost::localsocket::Server::Opened::kServing: break;
    case tvhost::localsocket::Server::Opened::kPathTooLong:
        Trace("injection socket path too long (%zu bytes): %s; running without it", strPath.size(), strPath.c_str());
        return false;
    case tvhost::localsocket::Server::Opened::kTaken:
        Trace("another engine serves %s; running without an injection socket", strPath.c_str());
        return false;
    case tvhost::localsocket::Server::Opened::kFailed:
        Trace("cannot serve %s (%s); running without an injection socket", strPath.c_str(), strerror(nErrno));
        return false;
    }
    Trace("injecting events: %s", strPath.c_str());
    return true;
}

void InjectServer::Close()
{
    m_server.Stop();
}

} // namespace qorvsim
