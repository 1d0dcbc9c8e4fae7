// event.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "commands.h"
#include "tvhost/parse.h"

namespace lumoratv {

void Event(const Args &args)
{
    int number = 0;
    if (!tvhost::ParseInt(args[0], number))
        throw UsageError("bad event number \"" + args[0] + "\": give a whole number such as 5 or 12291");
    std::string text;
    if (args[1] == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    } else {
        std::ifstream in(args[1], std::ios::binary);
        if (!in)
            throw hosttv::Error(hosttv::Error::Kind::kCannot, "cannot read " + args[1] + ": " + std::strerror(errno));
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    const int answer = hosttv::RaiseEvent(number, text);
    std::printf("event %d: the service answered %d%s\n", number, answer,
                answer == -2 ? " (the engine has no callback: the service did not register one)" : "");
}

} // namespace lumoratv
