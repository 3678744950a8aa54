#include "shell/Event.hpp"

#include "base/glib_glue.hpp"

namespace vt {

std::string Event::description() const
{
    static const char* const names[] = { "", "open-untitled", "open-files", "open-url", "reopen",
                                         "activate", "quit-request", "menu-item" };
    std::string text = names[static_cast<int>(type)];
    for (const auto& item : items)
        text += " " + item;
    if (!action.empty())
        text += " " + action;
    return text;
}

bool isURLArgument(const std::string& argument)
{
    if (argument.empty() || argument[0] == '/' || argument[0] == '.')
        return false;
    GCharPtr scheme(g_uri_parse_scheme(argument.c_str()));
    return scheme && g_ascii_strcasecmp(scheme.get(), "file") != 0;
}

std::string absolutePathForArgument(const std::string& argument, const std::filesystem::path& workingDirectory)
{
    if (g_str_has_prefix(argument.c_str(), "file:")) {
        GCharPtr path(g_filename_from_uri(argument.c_str(), nullptr, nullptr));
        if (path)
            return path.get();
    }
    std::filesystem::path path(argument);
    if (path.is_relative())
        path = workingDirectory / path;
    return path.lexically_normal().string();
}

std::vector<Event> openingEvents(const std::vector<std::string>& urls, const std::vector<std::string>& files)
{
    std::vector<Event> events;
    for (const auto& url : urls)
        events.push_back(Event { Event::Type::OpenURL, { url }, {} });
    if (!files.empty())
        events.push_back(Event { Event::Type::OpenFiles, files, {} });
    if (events.empty())
        events.push_back(Event { Event::Type::OpenUntitled, {}, {} });
    return events;
}

std::vector<Event> openingEventsForArguments(const std::vector<std::string>& arguments,
                                             const std::filesystem::path& workingDirectory)
{
    std::vector<std::string> urls, files;
    for (const auto& argument : arguments) {
        if (isURLArgument(argument))
            urls.push_back(argument);
        else
            files.push_back(absolutePathForArgument(argument, workingDirectory));
    }
    return openingEvents(urls, files);
}

} // namespace vt
