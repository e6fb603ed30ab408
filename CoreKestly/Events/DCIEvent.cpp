#include "CoreKestly/Events/DCIEvent.h"

#include "CoreKestly/Platform/RunLoop/DCIRecyclingAllocatorInternal.h"

std::shared_ptr<DCIEvent> DCIEvent::commonEventWithType(uint64_t type) {
    return initWithCategory(DCIEventCategoryCommon, type);
}

std::shared_ptr<DCIEvent> DCIEvent::initWithCategory(uint64_t category, uint64_t type) {
    return std::allocate_shared<DCIEvent>(DCIRecyclingAllocator<DCIEvent>(), Key(), category, type, DCIDate::now());
}

std::shared_ptr<DCIEvent> DCIEvent::init() {
    return std::allocate_shared<DCIEvent>(DCIRecyclingAllocator<DCIEvent>(), Key(), DCIEventCategoryCommon, 0,
                                          std::nullopt);
}

void DCIEvent::setContext(DCIDictionary context) {
    setContext(std::make_shared<const DCIDictionary>(std::move(context)));
}

std::optional<DCIValue> DCIEvent::contextValue(std::string_view key) const {
    const auto dictionary = context();
    if (!dictionary) return std::nullopt;
    const auto entry = dictionary->find(key);
    if (entry == dictionary->end()) return std::nullopt;
    return entry->second;
}

std::string DCIEvent::description() const {
    std::string text = "Event\n\tCategory = " + std::to_string(category_) + " - Type = " + std::to_string(type_);
    if (const auto dictionary = context()) text += "\n\tContext: " + DCIDescription(*dictionary);
    return text;
}
