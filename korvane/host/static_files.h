#pragma once

// The static files of the host: a root folder for "/" and further folders mounted
// at URL prefixes. A request path is percent-decoded and resolved inside the
// folder of the longest matching prefix; "..", and any symlink that leads out of
// the folder, are refused by checking the canonical path against the canonical
// folder.
//
// Threading: immutable after construction; find() touches only the file system and
// is safe on any thread.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvane::host {

struct StaticFile {
    std::filesystem::path path;
    std::string contentType;
    std::string etag;          // quoted, from size and modification time
    std::string lastModified;  // an HTTP date
    std::int64_t modifiedSeconds = 0;
    std::uint64_t size = 0;
};

class StaticFiles {
public:
    using Mount = std::pair<std::string, std::string>;  // URL prefix, folder

    // `root` serves "/" unless empty; folders that do not exist serve nothing.
    StaticFiles(const std::string& root, const std::vector<Mount>& mounts);

    // The file that `path` (the request target without its query) names, or nothing
    // when it is absent or outside every folder. A folder stands for its index.html.
    std::optional<StaticFile> find(std::string_view path) const;

    // Whether the browser's copy is current: If-None-Match wins over If-Modified-Since;
    // both empty when the request does not carry them.
    static bool isNotModified(const StaticFile& file, std::string_view ifNoneMatch,
                              std::string_view ifModifiedSince);

    static std::string contentTypeFor(const std::filesystem::path& path);

private:
    struct Folder {
        std::string prefix;  // without a trailing slash; empty for the root
        std::filesystem::path canonical;
    };

    std::vector<Folder> folders;  // longest prefix first
};

}  // namespace korvane::host
