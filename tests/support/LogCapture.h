// Captures what the service writes to the platform log for the length of a test.
#pragma once

#include <string>
#include <vector>

#include "tvhost/log.h"

class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    std::vector<tvhost::log::Record> Records() const { return tvhost::log::Records(); }
    // Messages (text after the "file:function(line)>" prefix) in order.
    std::vector<std::string> Messages() const;
    // Priority of the first record whose message equals text; -1 if none.
    int PriorityOf(const std::string &text) const;
    bool Has(const std::string &text) const { return PriorityOf(text) != -1; }
    // How many messages equal text.
    int Count(const std::string &text) const;
    void Clear() { tvhost::log::ClearRecords(); }
};

// The message part of a formatted log line: everything after the first ">".
std::string MessageOf(const std::string &line);
