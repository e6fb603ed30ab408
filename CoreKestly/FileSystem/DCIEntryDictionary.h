#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

/// A folder's entries of one kind by name, in name order (bytes compared as unsigned): what
/// `std::map` from name to object offers for reading, at 32 bytes an entry rather than a node
/// and a copy of the name. Each name is a view of the entry object's own `name()`, so it is
/// valid while the object is, which its entry keeps alive; a holder of a name taken out of
/// the dictionary holds the object too. Entries are held in a sorted vector: a dictionary is
/// built once and replaced, not edited, when its folder changes.
template <class Object>
class DCIEntryDictionary {
public:
    using value_type = std::pair<std::string_view, std::shared_ptr<Object>>;
    using const_iterator = typename std::vector<value_type>::const_iterator;
    using iterator = const_iterator;

    const_iterator begin() const { return entries_.begin(); }
    const_iterator end() const { return entries_.end(); }
    size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }

    const_iterator find(std::string_view name) const {
        const auto found = lowerBound(name);
        return found != entries_.end() && found->first == name ? found : entries_.end();
    }
    bool contains(std::string_view name) const { return find(name) != entries_.end(); }
    /// The object named `name`; throws `std::out_of_range` when there is none.
    const std::shared_ptr<Object>& at(std::string_view name) const {
        const auto found = find(name);
        if (found == entries_.end()) throw std::out_of_range("no entry of that name");
        return found->second;
    }

    /// Puts `object` under its name, replacing the entry of that name. Cheapest in name order.
    void insertOrReplace(std::shared_ptr<Object> object) {
        const std::string_view name = object->name();
        const auto place = lowerBound(name);
        if (place != entries_.end() && place->first == name) {
            entries_[static_cast<size_t>(place - entries_.begin())] = {name, std::move(object)};
        } else {
            entries_.insert(place, {name, std::move(object)});
        }
    }
    /// Takes out the entry `name`; true when there was one.
    bool erase(std::string_view name) {
        const auto found = find(name);
        if (found == entries_.end()) return false;
        entries_.erase(found);
        return true;
    }
    /// Gives back the memory a dictionary built by insertion holds beyond its entries.
    void shrinkToFit() { entries_.shrink_to_fit(); }

private:
    const_iterator lowerBound(std::string_view name) const {
        return std::lower_bound(entries_.begin(), entries_.end(), name,
                                [](const value_type& entry, std::string_view key) { return entry.first < key; });
    }

    std::vector<value_type> entries_;
};
