#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "tk/message.h"
#include "tk/status.h"

namespace tk {

/// A persistent map from ids to messages: one file, rewritten whole at each change.
///
/// A change is written to a temporary file beside it, synced, renamed over it, and the folder synced: after a
/// power cut the file holds the state before or after the change. A file that cannot be read (truncated, of
/// another kind or revision, without permission) is kept aside with ".damaged" added to its name, and one log
/// line tells of it. The store then starts empty, and no change ever overwrites that file. Where only a descriptor or
/// memory was missing, the file stays in its place for the next start, and until then no change is stored.
class Store {
public:
    /// Reads the file at `path`, which may be absent. `revision` tells apart the kinds of content that a path
    /// has held over time; a file of another revision cannot be read.
    Store(std::string path, std::uint32_t revision);

    /// The entry of `id`; an empty message when there is none.
    message get(std::uint32_t id) const;
    /// True when there is an entry of `id`.
    bool find(std::uint32_t id) const;
    /// True when this store has lost earlier content: its file could not be read, or was kept aside before and
    /// nothing has been stored since.
    bool hasLostContent() const { return lost; }
    /// All entries, by id.
    const std::map<std::uint32_t, message>& all() const { return entries; }

    /// Sets an entry, and persists it at once.
    /// Errors: the path and the system's text; the store is as before. The same holds for all that follow.
    [[nodiscard]] Status set(std::uint32_t id, const message& entry);
    /// Replaces all entries, and persists that with one write.
    [[nodiscard]] Status replace(std::map<std::uint32_t, message> content);
    /// Removes an entry, and persists that; an absent one is no error.
    [[nodiscard]] Status remove(std::uint32_t id);

    /// The two halves of set() and remove(), for a caller that acts only once it knows that the change can be
    /// written: stage...() writes and syncs the temporary file, commit() puts it in place, discard() drops
    /// it.
    [[nodiscard]] Status stage(std::uint32_t id, const message& entry);
    [[nodiscard]] Status stageRemoval(std::uint32_t id);
    [[nodiscard]] Status commit();
    void discard();

private:
    void load();
    void unreadable(const Status& why);
    void keepAside(const std::string& why);
    [[nodiscard]] Status writeStaged();
    [[nodiscard]] Status ownOutcome(const Status& outcome);
    std::string stagedPath() const;
    std::string asidePath() const;

    std::string path;
    std::uint32_t revision;
    std::map<std::uint32_t, message> entries;
    std::map<std::uint32_t, message> staged;
    bool lost = false;
    // True when a file that could not be read is still in its place: it must not be overwritten.
    bool blocked = false;
};

/// The checksum that reveals a damaged store: the CRC-32 of ISO 3309, as in zip files and Ethernet frames.
[[nodiscard]] std::uint32_t crc32(std::string_view bytes);

}  // namespace tk
