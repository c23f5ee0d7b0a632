#pragma once

#include <string_view>

// The private key that this build of the server carries, in its stored form (ScrambledKey.h): deployment
// data, generated when the server is built. Thread-safe.
std::string_view ScrambledPrivateKey();
