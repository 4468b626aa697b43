#include "korvane/host/static_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>

#include "korvane/frame/logger.h"
#include "korvane/host/ascii_case.h"

namespace korvane::host {

namespace fs = std::filesystem;

namespace {

common::diagnostic_logger logger("korvane::host::http");

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Nothing for a malformed escape or a decoded NUL or backslash.
std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size()) {
                return std::nullopt;
            }
            int high = hexValue(text[i + 1]);
            int low = hexValue(text[i + 2]);
            if (high < 0 || low < 0) {
                return std::nullopt;
            }
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (c == '\0' || c == '\\') {
            return std::nullopt;
        }
        decoded.push_back(c);
    }
    return decoded;
}

// The path below a folder as relative segments; nothing when a segment is "..".
std::optional<fs::path> relativePath(std::string_view rest) {
    fs::path relative;
    while (!rest.empty()) {
        std::size_t slash = rest.find('/');
        std::string_view segment = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (segment == "..") {
            return std::nullopt;
        }
        if (!segment.empty() && segment != ".") {
            relative /= std::string(segment);
        }
    }
    return relative;
}

std::string httpDate(std::int64_t seconds) {
    std::time_t time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    gmtime_r(&time, &utc);
    char text[64];
    std::strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &utc);
    return text;
}

std::optional<std::int64_t> parseHttpDate(std::string_view text) {
    std::tm utc{};
    std::string copy(text);
    const char* end = strptime(copy.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &utc);
    if (end == nullptr) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(timegm(&utc));
}

bool isInside(const fs::path& candidate, const fs::path& folder) {
    auto mismatch = std::mismatch(folder.begin(), folder.end(), candidate.begin(), candidate.end());
    return mismatch.first == folder.end() && mismatch.second != candidate.end();
}

bool etagListed(std::string_view list, std::string_view etag) {
    while (!list.empty()) {
        std::size_t comma = list.find(',');
        std::string_view entry = list.substr(0, comma);
        list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
        while (!entry.empty() && entry.front() == ' ') {
            entry.remove_prefix(1);
        }
        while (!entry.empty() && entry.back() == ' ') {
            entry.remove_suffix(1);
        }
        if (entry.substr(0, 2) == "W/") {
            entry.remove_prefix(2);
        }
        if (entry == "*" || entry == etag) {
            return true;
        }
    }
    return false;
}

}  // namespace

StaticFiles::StaticFiles(const std::string& root, const std::vector<Mount>& mounts) {
    auto addFolder = [this](std::string prefix, const std::string& folder) {
        std::error_code error;
        fs::path canonical = fs::canonical(folder, error);
        if (error || !fs::is_directory(canonical)) {
            KORVANE_LOG(logger, common::logWarning) << "Static folder " << folder << " is not a folder; nothing is served at '"
                                     << (prefix.empty() ? "/" : prefix) << "'";
            return;
        }
        while (!prefix.empty() && prefix.back() == '/') {
            prefix.pop_back();
        }
        folders.push_back(Folder{std::move(prefix), std::move(canonical)});
    };
    for (const Mount& mount : mounts) {
        addFolder(mount.first, mount.second);
    }
    if (!root.empty()) {
        addFolder("", root);
    }
    std::stable_sort(folders.begin(), folders.end(),
                     [](const Folder& a, const Folder& b) { return a.prefix.size() > b.prefix.size(); });
}

std::optional<StaticFile> StaticFiles::find(std::string_view path) const {
    std::optional<std::string> decoded = percentDecoded(path);
    if (!decoded || decoded->empty() || decoded->front() != '/') {
        return std::nullopt;
    }
    for (const Folder& folder : folders) {
        const std::string_view text(*decoded);
        if (text.compare(0, folder.prefix.size(), folder.prefix) != 0 ||
            (text.size() > folder.prefix.size() && text[folder.prefix.size()] != '/')) {
            continue;
        }
        std::optional<fs::path> relative = relativePath(text.substr(folder.prefix.size()));
        if (!relative) {
            return std::nullopt;
        }
        std::error_code error;
        fs::path candidate = fs::canonical(folder.canonical / *relative, error);
        if (!error && fs::is_directory(candidate, error)) {
            candidate = fs::canonical(candidate / "index.html", error);
        }
        if (error || !isInside(candidate, folder.canonical) || !fs::is_regular_file(candidate, error)) {
            return std::nullopt;
        }
        struct stat status {};
        if (::stat(candidate.c_str(), &status) != 0) {
            return std::nullopt;
        }
        StaticFile file;
        file.size = static_cast<std::uint64_t>(status.st_size);
        file.modifiedSeconds = static_cast<std::int64_t>(status.st_mtim.tv_sec);
        char etag[64];
        std::snprintf(etag, sizeof(etag), "\"%llx-%llx%09lx\"", static_cast<unsigned long long>(file.size),
                      static_cast<unsigned long long>(status.st_mtim.tv_sec),
                      static_cast<unsigned long>(status.st_mtim.tv_nsec));
        file.etag = etag;
        file.lastModified = httpDate(file.modifiedSeconds);
        file.contentType = contentTypeFor(candidate);
        file.path = std::move(candidate);
        return file;
    }
    return std::nullopt;
}

bool StaticFiles::isNotModified(const StaticFile& file, std::string_view ifNoneMatch,
                                std::string_view ifModifiedSince) {
    if (!ifNoneMatch.empty()) {
        return etagListed(ifNoneMatch, file.etag);
    }
    if (!ifModifiedSince.empty()) {
        std::optional<std::int64_t> since = parseHttpDate(ifModifiedSince);
        return since && file.modifiedSeconds <= *since;
    }
    return false;
}

std::string StaticFiles::contentTypeFor(const fs::path& path) {
    static const std::pair<const char*, const char*> types[] = {
        {".html", "text/html; charset=utf-8"},
        {".htm", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".json", "application/json"},
        {".map", "application/json"},
        {".png", "image/png"},
        {".svg", "image/svg+xml"},
        {".ico", "image/x-icon"},
        {".txt", "text/plain; charset=utf-8"},
    };
    const std::string extension = asciiLowered(path.extension().string());
    for (const auto& [suffix, type] : types) {
        if (extension == suffix) {
            return type;
        }
    }
    return "application/octet-stream";
}

}  // namespace korvane::host
