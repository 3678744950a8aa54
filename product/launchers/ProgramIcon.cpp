#include "product/launchers/ProgramIcon.hpp"

#include <algorithm>
#include <regex>
#include <string>

#include "base/glib_glue.hpp"
#include "product/common/AsciiText.hpp"

namespace vt::product {

namespace fs = std::filesystem;

namespace {
    // Runs `argv` and gives what it wrote on standard output; throws
    // IconError when it cannot run or does not end well.
    std::string run(const std::vector<std::string>& argv)
    {
        std::vector<char*> arguments;
        for (const std::string& argument : argv)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        char* out = nullptr;
        char* err = nullptr;
        int status = 0;
        GErrorHolder error;
        bool ran = g_spawn_sync(nullptr, arguments.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &out, &err,
                                &status, error);
        GCharPtr output(out), complaint(err);
        if (!ran) {
            if (error.matches(G_SPAWN_ERROR, G_SPAWN_ERROR_NOENT))
                throw IconError(argv[0] + " is not installed (Debian's icoutils)");
            throw IconError(argv[0] + " cannot run: " + error.message());
        }
        if (!g_spawn_check_wait_status(status, nullptr)) {
            std::string said = complaint ? complaint.get() : "";
            said = said.substr(0, said.find('\n'));
            throw IconError(argv[0] + " failed" + (said.empty() ? "" : ": " + said));
        }
        return output ? output.get() : "";
    }

    bool isIconFile(const fs::path& file) { return lowerAscii(file.extension().string()) == ".ico"; }

    // The group icon of `file` that `index` names, written to `ico`.
    void extractGroup(const fs::path& file, int index, const fs::path& ico)
    {
        // One line per group, in the file's order:
        // --type=14 --name=1 --language=1033 [offset=0x... size=...]
        // (a named group: --name='APPICON').
        std::string listing = run({ "wrestool", "--list", "--type=14", file.string() });
        static const std::regex kLine(R"(--type=14 --name=('([^']*)'|(\d+)) --language=(\d+))");
        std::vector<std::pair<std::string, std::string>> groups; // name, language
        std::string number = index < 0 ? std::to_string(-static_cast<long>(index)) : "";
        for (auto it = std::sregex_iterator(listing.begin(), listing.end(), kLine); it != std::sregex_iterator(); ++it)
            groups.emplace_back((*it)[2].matched ? (*it)[2].str() : (*it)[3].str(), (*it)[4].str());
        if (groups.empty())
            throw IconError(file.filename().string() + " holds no icon");
        const std::pair<std::string, std::string>* chosen = nullptr;
        if (index >= 0 && static_cast<size_t>(index) < groups.size())
            chosen = &groups[static_cast<size_t>(index)];
        for (const auto& group : groups)
            if (index < 0 && group.first == number)
                chosen = &group;
        if (!chosen)
            throw IconError(file.filename().string() + " has no icon " + std::to_string(index));
        run({ "wrestool", "--extract", "--type=14", "--name=" + chosen->first, "--language=" + chosen->second,
              "--output=" + ico.string(), file.string() });
    }
} // namespace

std::vector<IconImage> readProgramIcon(const fs::path& file, int index, const fs::path& scratch)
{
    fs::path ico = file;
    if (!isIconFile(file)) {
        ico = scratch / "group.ico";
        extractGroup(file, index, ico);
    }
    fs::path images = scratch / "images";
    std::error_code error;
    fs::create_directories(images, error);
    // Each image as <name>_<n>_<width>x<height>x<bits>.png.
    run({ "icotool", "--extract", "--output=" + images.string(), ico.string() });
    static const std::regex kImageName(R"(_\d+_(\d+)x(\d+)x(\d+)\.png$)");
    std::vector<IconImage> found;
    for (const auto& item : fs::directory_iterator(images, error)) {
        std::string name = item.path().filename().string();
        std::smatch match;
        if (!std::regex_search(name, match, kImageName))
            continue;
        GErrorHolder loadError;
        GPtr<GdkPixbuf> pixbuf = adopt(gdk_pixbuf_new_from_file(item.path().c_str(), loadError));
        if (!pixbuf)
            continue;
        if (!gdk_pixbuf_get_has_alpha(pixbuf.get()))
            pixbuf = adopt(gdk_pixbuf_add_alpha(pixbuf.get(), FALSE, 0, 0, 0));
        found.push_back({ std::move(pixbuf), std::stoi(match[3].str()) });
    }
    if (found.empty())
        throw IconError("the icon of " + file.filename().string() + " holds no image that can be read");
    std::sort(found.begin(), found.end(), [](const IconImage& a, const IconImage& b) {
        int aw = gdk_pixbuf_get_width(a.pixbuf.get()), bw = gdk_pixbuf_get_width(b.pixbuf.get());
        return aw != bw ? aw > bw : a.bitsPerPixel > b.bitsPerPixel;
    });
    return found;
}

GPtr<GdkPixbuf> iconAtSize(const std::vector<IconImage>& images, int size)
{
    const IconImage* best = images.empty() ? nullptr : &images.front();
    for (const IconImage& image : images) {
        int width = gdk_pixbuf_get_width(image.pixbuf.get());
        if (width >= size)
            best = &image; // largest first: the last one still large enough
        if (width == size && gdk_pixbuf_get_height(image.pixbuf.get()) == size)
            return addRef(image.pixbuf.get());
    }
    if (!best)
        return nullptr;
    return adopt(gdk_pixbuf_scale_simple(best->pixbuf.get(), size, size, GDK_INTERP_HYPER));
}

} // namespace vt::product
