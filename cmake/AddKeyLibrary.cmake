# add_key_library(TARGET KEY_DIR [PEM]): a library that carries the private key of the pair in KEY_DIR. Without a
# pair there, one is made at build time: from PEM if given, else a new one. A pair made from PEM is made again when
# PEM changes; any other is never replaced. The pair is an entry of a dependency file, not an output, so that no
# clean target deletes it.
function(add_key_library target key_dir)
  set(pem ${ARGN})
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${target}.cpp)
  add_custom_command(
    OUTPUT ${source}
    COMMAND ${CMAKE_COMMAND} -DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR} -DKEYGEN=$<TARGET_FILE:ugs>
            -DKEY_DIR=${key_dir} -DPEM=${pem} -DOUTPUT=${source} -DDEPFILE=${source}.d -P ${PROJECT_SOURCE_DIR}/cmake/EmbedKey.cmake
    DEPENDS ugs ${pem} ${PROJECT_SOURCE_DIR}/cmake/EmbedKey.cmake
    DEPFILE ${source}.d
    COMMENT "Embedding the key pair of ${key_dir}"
    VERBATIM)
  add_library(${target} STATIC ${source})
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/src)
endfunction()
