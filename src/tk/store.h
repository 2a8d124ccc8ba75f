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
/// another kind or revision, without permission) is kept aside under its name with ".damaged" behind it, with
/// one log line, and the store starts empty; no change ever overwrites it.
class Store {
public:
    /// Reads the file at `path`, which may be absent. `revision` tells apart the kinds of content that one
    /// path had; a file of another revision is a foreign one.
    Store(std::string path, std::uint32_t revision);

    /// The entry of `id`, an empty message where there is none.
    message get(std::uint32_t id) const;
    /// True when there is an entry of `id`.
    bool find(std::uint32_t id) const;
    /// True when there was content that this store did not find: its file was damaged, or had been kept aside
    /// before, with nothing stored since.
    bool hasLostContent() const { return lost; }
    /// All entries, by id.
    const std::map<std::uint32_t, message>& all() const { return entries; }

    /// Sets an entry, and persists it at once.
    /// Errors: the path and the system's text; the store is as before. So of all that follow.
    [[nodiscard]] Status set(std::uint32_t id, const message& entry);
    /// Puts entries in the place of all that there are, and persists that with one write.
    [[nodiscard]] Status replace(std::map<std::uint32_t, message> content);
    /// Removes an entry, and persists that. An absent one is no error.
    [[nodiscard]] Status remove(std::uint32_t id);

    /// The two halves of set() and remove(), for a caller who must know that the change can be written before
    /// it acts: stage...() writes and syncs the temporary file, commit() puts it in place, discard() drops
    /// it.
    [[nodiscard]] Status stage(std::uint32_t id, const message& entry);
    [[nodiscard]] Status stageRemoval(std::uint32_t id);
    [[nodiscard]] Status commit();
    void discard();

private:
    void load();
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
    bool blocked = false;  // a damaged file could not be moved aside, and must not be overwritten
};

/// What a store's file tells damage by: the CRC-32 of ISO 3309, as in zip files and Ethernet frames.
[[nodiscard]] std::uint32_t crc32(std::string_view bytes);

}  // namespace tk
