// What a Start-menu shortcut (a Windows shell link, ".lnk") points at, read
// from its bytes as Windows writes them and as Wine's shell writes them
// (the shell link binary format: a 76-byte header, an optional item-id list,
// an optional link-info block with the target's local path, then the
// optional strings, then extra-data blocks).
//
// The target is taken, in this order, from the link-info block's local base
// path (with its common path suffix), the environment-variable block's
// target, and the relative path; the strings come as written (UTF-16 or the
// ANSI code page, read as Latin-1). Nothing outside the file is looked at:
// a target that names an environment variable is given as written.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace vt::product {

// Bytes that are no shell link, or that end inside one of its parts; the
// text says which part.
class ShellLinkError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct ShellLink {
    std::string target; // a Windows path, UTF-8; empty when the link has none
    std::string arguments;
    std::string workingDirectory;
    std::string description; // the link's name string
    std::string iconLocation; // empty: the target's own icon
    int32_t iconIndex = 0;
};

// Throws ShellLinkError.
ShellLink readShellLink(std::span<const uint8_t> bytes);

// The bytes of a shortcut to `link.target`, a local Windows path, as
// Windows writes one without an item-id list: the link-info block gives the
// target (ANSI, which Wine's shell reads, and UTF-16), then the name,
// working directory, arguments and icon location that are not empty, in
// UTF-16. readShellLink() gives `link` back.
std::vector<uint8_t> writeShellLink(const ShellLink& link);

} // namespace vt::product
