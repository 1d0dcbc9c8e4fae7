// Test control of the host settings store (vconf): one file per key under the
// TV root, so every process on the host TV sees the same values.
#pragma once

#include <string>

namespace tvhost {
namespace settings {

// Write a key as the platform would, and tell the key's subscribers; false,
// with errno, when it cannot be written (nobody is told then).
bool SetInt(const std::string &key, int value);
bool SetString(const std::string &key, const std::string &value);

// False when the key is missing or holds the other type.
bool GetInt(const std::string &key, int &value);
bool GetString(const std::string &key, std::string &value);

// Removes the key's file; nobody is told.
void Remove(const std::string &key);

// The file that holds key.
std::string KeyPath(const std::string &key);

// How many callbacks are registered for key.
int Subscribers(const std::string &key);

} // namespace settings
} // namespace tvhost
