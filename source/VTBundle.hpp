// A read-only view of an application bundle on disk: a directory B with
// B/Contents/Info.plist (XML or binary), the executable in B/Contents/MacOS.
//
// Every VTBundle reads the Info.plist anew when it is made and keeps nothing
// between objects, so a bundle replaced or updated on disk is seen as it is
// now, not as it was when the process first looked at it.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "source/PropertyList.hpp"

namespace vt {

class VTBundle {
public:
    // nullptr unless B/Contents/Info.plist is a readable regular file that
    // holds a dictionary; `problem`, when given, then says what is wrong with
    // it. Nothing is logged.
    static std::unique_ptr<VTBundle> bundleWithPath(const std::filesystem::path& path, std::string* problem = nullptr);

    // The bundle of the running executable, from its path as invoked: argv0
    // made absolute when it contains a '/', otherwise /proc/self/exe. Symbolic
    // links in argv0 are not resolved, so a link to the binary placed in
    // another bundle belongs to that bundle. Empty unless the executable sits
    // at B/Contents/MacOS/<name>.
    static std::optional<std::filesystem::path> mainBundlePathFromExecutable(const char* argv0);

    // B for an executable at B/Contents/MacOS/<name>, judged on the path's
    // names alone; empty for any other path.
    static std::optional<std::filesystem::path> bundlePathForExecutable(const std::filesystem::path& executable);

    // The value of `key` in the information dictionary, or nullptr. Valid as
    // long as this object.
    const PlistValue* objectForInfoDictionaryKey(std::string_view key) const;
    // The value of `key` when it is a string.
    std::optional<std::string> stringForInfoDictionaryKey(std::string_view key) const;

    // CFBundleIdentifier, when it is a string.
    std::optional<std::string> bundleIdentifier() const;
    // B/Contents/MacOS/<CFBundleExecutable>; empty when the bundle names no
    // executable or names it by anything but a plain file name (an absolute
    // path, one with a '/', "." or ".."). Whether the file exists is not checked.
    std::optional<std::filesystem::path> executablePath() const;

    const std::filesystem::path& bundlePath() const { return m_path; }
    std::filesystem::path sharedSupportPath() const { return m_path / "Contents" / "SharedSupport"; }
    std::filesystem::path resourcePath() const { return m_path / "Contents" / "Resources"; }
    const PlistDict& infoDictionary() const { return m_info; }

private:
    VTBundle(std::filesystem::path path, PlistDict info) : m_path(std::move(path)), m_info(std::move(info)) {}

    std::filesystem::path m_path;
    PlistDict m_info;
};

} // namespace vt
