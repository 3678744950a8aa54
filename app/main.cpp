#include "app/VTFBHelperApp.hpp"

int main(int argc, char** argv)
{
    vt::VTFBHelperApp application;
    return application.run(argc, argv);
}
