#include <exception>

#include "app/VTFBHelperApp.hpp"
#include "base/PlatformLog.hpp"

int main(int argc, char** argv)
{
    // Nothing the launcher cannot handle may end it with an abort and a core:
    // it says what went wrong in one line and fails.
    try {
        vt::VTFBHelperApp application;
        return application.run(argc, argv);
    } catch (const std::exception& e) {
        vt::platformLog("vtlauncher cannot go on: %s", e.what());
    } catch (...) {
        vt::platformLog("vtlauncher cannot go on after an unexpected failure");
    }
    return 1;
}
