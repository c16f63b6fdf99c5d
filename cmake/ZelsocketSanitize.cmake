# Sanitizer builds.  Flags go on every target of the tree (library, tests,
# examples) so that the instrumentation sees both sides of each call.
if(ZELSOCKET_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(ZELSOCKET_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT ZELSOCKET_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZELSOCKET_SANITIZE must be empty, 'address' or 'thread'")
endif()
