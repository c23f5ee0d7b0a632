# Runs at build time: makes the key pair in KEY_DIR with KEYGEN if there is none (from PEM, if given), and writes
# OUTPUT, the source that carries its scrambled private key. Replaces no key but one made from an older PEM. EMULATOR
# starts KEYGEN, if that is for another machine. DEPFILE makes a new key rebuild it.
set(private ${KEY_DIR}/private.scrambled)
if(PEM AND EXISTS ${private})
  if(${PEM} IS_NEWER_THAN ${private})
    file(REMOVE ${private} ${KEY_DIR}/public.pem)
  endif()
endif()
if(NOT EXISTS ${private})
  if(PEM)
    set(from --from ${PEM})
  endif()
  execute_process(COMMAND ${EMULATOR} ${KEYGEN} keygen --out ${KEY_DIR} ${from} OUTPUT_QUIET RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "No key pair could be made in ${KEY_DIR}.")
  endif()
endif()
execute_process(COMMAND ${EMULATOR} ${KEYGEN} fingerprint --key ${KEY_DIR}/public.pem OUTPUT_VARIABLE fingerprint
                COMMAND_ERROR_IS_FATAL ANY)
string(STRIP "${fingerprint}" fingerprint)
message(STATUS "Key pair of ${KEY_DIR}, SHA-256 of the public key: ${fingerprint}")
file(READ ${private} scrambled)
string(STRIP "${scrambled}" scrambled)
file(CONFIGURE OUTPUT ${OUTPUT} @ONLY CONTENT [[
// Generated from the key pair of this build; do not commit.
#include "PrivateKey.h"

std::string_view ScrambledPrivateKey() { return "@scrambled@"; }
]])
file(WRITE ${DEPFILE} "${OUTPUT}: ${private}\n")
