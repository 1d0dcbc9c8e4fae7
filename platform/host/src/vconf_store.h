// Internal to tvhost: the settings store behind vconf.h and tvhost/settings.h.
// Every key is one file in KeyDir(), named EscapeName(key) (host_files.h) and
// replaced atomically on each write, so a watcher of that one folder sees
// every change made by any process.
#pragma once

#include <string>

namespace tvhost {
namespace detail {
namespace settings {

std::string KeyDir();

// Tells every subscriber of key about the value it holds now; nothing when
// the key has no value. Called without any store lock held, and the
// callbacks run on the calling thread. This is the one way a change reaches
// vconf callbacks.
void DeliverKeyChange(const std::string &key);

} // namespace settings
} // namespace detail
} // namespace tvhost
