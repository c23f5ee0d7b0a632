#pragma once

#include <filesystem>
#include <optional>
#include <string>

// Makes the server's key pair in `directory`: private.scrambled (mode 0600), which the server is built with,
// and public.pem, which every instance holds. Takes the key from the PEM file `from` if there is one, else
// makes a new RSA-2048 key. Proves the pair before it writes anything and never overwrites a file. Returns
// the public key's fingerprint. Throws std::runtime_error with a text for the user.
std::string MakeKeyPair(const std::filesystem::path& directory,
                        const std::optional<std::filesystem::path>& from);
