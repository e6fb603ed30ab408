# Warnings and sanitizers shared by every target of the project.
add_library(kestly_compiler_options INTERFACE)
target_compile_options(kestly_compiler_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough
  # These find real faults: silently narrowed or sign-flipped sizes, format strings that do
  # not match their arguments, functions meant to be file-local that are not.
  -Wconversion -Wsign-conversion -Wformat=2 -Wmissing-declarations)
if(KESTLY_WERROR)
  target_compile_options(kestly_compiler_options INTERFACE -Werror)
endif()

if(KESTLY_SANITIZE)
  string(REPLACE "," ";" _kestly_sanitizers "${KESTLY_SANITIZE}")
  foreach(_sanitizer IN LISTS _kestly_sanitizers)
    add_compile_options(-fsanitize=${_sanitizer})
    add_link_options(-fsanitize=${_sanitizer})
  endforeach()
  add_compile_options(-fno-omit-frame-pointer -fno-sanitize-recover=all)
endif()
