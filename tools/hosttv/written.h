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
    const std::string text = "cannot write " + what + " in the TV root " + tvhost::Root() + ": " + std::strerror(error);
    const bool bOwner = error == EACCES || error == EPERM || error == EROFS;
    throw Error(Error::Kind::kCannot, text, bOwner ? Error::Remedy::kFixOwner : Error::Remedy::kNone, tvhost::Root());
}

} // namespace hosttv
