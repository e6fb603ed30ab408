#include "CoreKestly/Platform/Values/DCIObject.h"

#include <cstdio>
#include <typeinfo>

std::string DCIObject::description() const {
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
    return std::string("<") + typeid(*this).name() + ": " + address + ">";
}
