// hosttv's own: a change of the TV root's shared state that was not written.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include "hosttv/hosttv.h"
#include "tvhost/tvhost.h"

namespace hosttv {

// Throws, naming what was not written and why, when bDone is false (errno
// set by the write). The usual cause is a TV root of another user.
inline void Written(bool bDone, const std::string &what)
{
    if (bDone)
        return;
    const int error = errno;
    std::string text = "cannot write " + what + " in the TV root " + tvhost::Root() + ": " + std::strerror(error);
    if (error == EACCES || error == EPERM || error == EROFS)
        text += "; it must be writable by whoever drives the host TV (made by another user, e.g. sudo make demo? "
                "then: sudo chown -R \"$(id -un)\" " +
                tvhost::Root() + ")";
    throw Error(Error::Kind::kCannot, text);
}

} // namespace hosttv
