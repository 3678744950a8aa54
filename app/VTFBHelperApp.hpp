// The launcher's application object. It creates and installs the one
// delegate, and is the seam through which an in-process Wine display driver
// joins in: a registered controller sees every event first and receives the
// life-cycle notifications it has callbacks for.
#pragma once

#include <memory>
#include <optional>

#include "shell/Application.hpp"
#include "vtlauncher/wine_controller.h"

namespace vt {

class VTFBHelperDelegate;

class VTFBHelperApp : public Application {
public:
    VTFBHelperApp();
    ~VTFBHelperApp() override;

    static VTFBHelperApp* shared();

    VTFBHelperDelegate& helperDelegate() { return *m_helperDelegate; }

    // The registered controller, or null. Not owned: its context belongs to
    // the driver.
    const vt_wine_controller* wineController() const { return m_wineController ? &*m_wineController : nullptr; }
    void setWineController(const vt_wine_controller* controller);

    void sendEvent(const Event& event) override;

private:
    std::unique_ptr<VTFBHelperDelegate> m_helperDelegate;
    std::optional<vt_wine_controller> m_wineController;
};

} // namespace vt
