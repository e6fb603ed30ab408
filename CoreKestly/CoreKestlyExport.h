#pragma once

// The library is built with hidden visibility: its binary interface is exactly what carries
// this mark (the public classes and functions), so its internals and the template instances
// of the libraries it uses stay its own and never clash with a host's.
#define KESTLY_EXPORT __attribute__((visibility("default")))
// For the private parts of an exported class, which would otherwise share its visibility.
#define KESTLY_HIDDEN __attribute__((visibility("hidden")))

#if __cplusplus < 202002L
#error "CoreKestly needs C++20 or later: compile with -std=c++20 or a later standard"
#endif
