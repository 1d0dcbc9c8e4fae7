#include "LogCapture.h"

#include "tvhost/tvhost.h"

LogCapture::LogCapture()
{
    tvhost::Reset();
    tvhost::log::SetEnabled(true);
    tvhost::log::SetEcho(false);
    tvhost::log::SetCapture(true);
}

LogCapture::~LogCapture()
{
    tvhost::log::SetCapture(false);
    tvhost::log::ClearRecords();
}

std::string MessageOf(const std::string &line)
{
    size_t pos = line.find('>');
    return pos == std::string::npos ? line : line.substr(pos + 1);
}

std::vector<std::string> LogCapture::Messages() const
{
    std::vector<std::string> out;
    for (const auto &r : Records())
        out.push_back(MessageOf(r.text));
    return out;
}

int LogCapture::PriorityOf(const std::string &text) const
{
    for (const auto &r : Records())
        if (MessageOf(r.text) == text)
            return r.priority;
    return -1;
}

int LogCapture::Count(const std::string &text) const
{
    int n = 0;
    for (const auto &m : Messages())
        n += (m == text);
    return n;
}
