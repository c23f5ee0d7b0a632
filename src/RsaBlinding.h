// RSA blinding that outlives the object of the key it serves.
#pragma once

#include <openssl/types.h>

// Lets private-key operations with `key` use the blinding that the calling thread keeps for the key's
// modulus, in place of a new one. OpenSSL keeps blinding with the key's object, and setting it up costs as
// much as an operation; a key that is read for every envelope would pay that each time. What is kept is a
// random number and the public half of the key. Thread-safe; an operation fails if memory for it is short.
void UseKeptBlinding(RSA* key);
