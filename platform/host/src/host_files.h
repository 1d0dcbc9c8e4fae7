// Internal to tvhost: where the emulated services keep state that every
// process on the host TV must see, and how they write it.
#pragma once

#include <string>

namespace tvhost {
namespace detail {

// <TV root>/opt/var/tvhost/<area>, created on first use.
std::string StateDir(const std::string &area);

// text with every byte for which bEscape(byte, position) holds written as
// %XX (upper-case hex).
std::string PercentEscape(const std::string &text, bool (*bEscape)(unsigned char c, size_t at));

// A file name for an arbitrary name: '/' and '%' are %-escaped and a leading
// '.' too, so no name can leave its folder or look like a temporary file.
std::string EscapeName(const std::string &name);

// Replaces path's content at once: readers see the old or the new file, never
// a half-written one. The temporary file is hidden (leading '.') beside it.
bool WriteFileAtomically(const std::string &path, const std::string &content);
bool ReadFile(const std::string &path, std::string &content);

bool FileExists(const std::string &path);
// Creates an empty file if none is there.
bool TouchFile(const std::string &path);
// True when the file is gone, also when it was not there.
bool RemoveFile(const std::string &path);

} // namespace detail
} // namespace tvhost
