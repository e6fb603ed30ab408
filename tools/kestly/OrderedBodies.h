#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// The bodies `kestly download` sends to standard output, in the order of their URLs, with
/// bounded memory whatever their sizes. Each is fetched into a spool file of its own and copied
/// out as it comes: the first streams as it arrives, a later one waits in its spool only while
/// an earlier one is still coming. Copied bytes are punched out of the spool, so the disk holds
/// no more than the bodies still waiting either.
class OrderedBodies {
public:
    /// `writes` false: the bodies are counted, not written (the JSON lines tell their sizes).
    explicit OrderedBodies(bool writes) : writes_(writes) {}
    ~OrderedBodies();
    OrderedBodies(const OrderedBodies&) = delete;
    OrderedBodies& operator=(const OrderedBodies&) = delete;

    /// Takes the next body in order, to be fetched into the file `spoolName`, which the worker
    /// makes when the transfer starts.
    void add(std::string spoolName);
    /// The transfer of body `index` runs, so its spool exists: it is opened and its name
    /// removed, so that nothing is left of it however the process ends.
    void started(size_t index);
    /// The transfer of body `index` ended: no more comes for it.
    void ended(size_t index);
    /// Copies out whatever can go now; answers false when standard output takes no more.
    bool pump();
    /// The bytes received for body `index`, all copied out once it ended and its turn came.
    uint64_t received(size_t index) const { return bodies_[index].copied; }
    /// The spool names not yet removed, for an interrupted run to remove.
    void removeSpools() const;

private:
    struct Body {
        std::string spoolName;
        int spool = -1;
        uint64_t copied = 0;
        bool ended = false;
    };
    /// Copies out what the spool holds past what was copied; answers false when writing failed.
    bool drain(Body& body);

    const bool writes_;
    std::vector<Body> bodies_;
    size_t next_ = 0;
};
