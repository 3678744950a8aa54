#include "source/PlatformLog.hpp"

int main(int, char**)
{
    vt::platformLog("vtlauncher: the application shell is not part of this build yet");
    return 0;
}
