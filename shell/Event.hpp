// What reaches the launcher from outside: its command line and second
// launches (opening events), activation, quit requests and menu items.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace vt {

struct Event {
    // The values are those of the controller seam's vt_event_type.
    enum class Type { OpenUntitled = 1, OpenFiles, OpenURL, Reopen, Activate, QuitRequest, MenuItem };
    Type type;
    std::vector<std::string> items; // file paths, or the one URL
    std::string action;             // menu items

    std::string description() const; // for the log: "open-files /a /b"
};

// Whether a launch argument is a URL to hand on as such: a URI whose scheme
// is not "file". A path like "./a:b" or "/x:y" is not a URI, whatever its
// colons; neither is "--help", which is a document like any other name.
bool isURLArgument(const std::string& argument);

// The absolute path an argument that is not a URL stands for: a file: URI
// converted, a relative path taken against `workingDirectory`.
std::string absolutePathForArgument(const std::string& argument, const std::filesystem::path& workingDirectory);

// The opening events for URLs and files: one URL event per URL, in order,
// then one open-files event with every file; neither gives an untitled
// opening.
std::vector<Event> openingEvents(const std::vector<std::string>& urls, const std::vector<std::string>& files);

// The opening events for a launch's arguments, sorted with the two rules above.
std::vector<Event> openingEventsForArguments(const std::vector<std::string>& arguments,
                                             const std::filesystem::path& workingDirectory);

} // namespace vt
