#include "CoreKestly/Platform/Values/DCILocalizedString.h"

#include <memory>
#include <mutex>

namespace {

std::mutex tableMutex;
std::shared_ptr<const DCILocalizedStringTable> sharedTable;

}  // namespace

void DCISetLocalizedStringTable(DCILocalizedStringTable table) {
    auto replacement = table ? std::make_shared<const DCILocalizedStringTable>(std::move(table)) : nullptr;
    std::lock_guard lock(tableMutex);
    sharedTable.swap(replacement);
}

std::string DCILocalizedString(std::string_view key) {
    std::shared_ptr<const DCILocalizedStringTable> table;
    {
        std::lock_guard lock(tableMutex);
        table = sharedTable;
    }
    if (table) {
        try {
            if (auto translated = (*table)(key)) return *translated;
        } catch (...) {
            // A table that throws translates nothing.
        }
    }
    return std::string(key);
}
