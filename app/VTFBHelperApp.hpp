// The launcher's application object. It creates and installs the one
// delegate, and is the seam through which an in-process Wine display driver
// joins in: a registered controller sees every event first and receives the
// life-cycle notifications it has callbacks for.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "base/NotificationCenter.hpp"
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

    // The registered controller (a copy; its context belongs to the driver).
    bool hasWineController() const { return m_wineController.has_value(); }
    // Replaces the controller; null clears it. A controller whose size does
    // not cover its context is refused and logged.
    void setWineController(const vt_wine_controller* controller);

    // The controller's answers, empty when there is none or it does not
    // answer that question. An answer that is no reply is logged and taken
    // as a cancel.
    std::optional<TerminateReply> wineControllerShouldTerminate();
    std::optional<bool> wineControllerShouldHandleReopen(bool hasVisibleWindows);

    void sendEvent(const Event& event) override;

protected:
    // Wine's thread, once it runs inside the launcher, is never joined.
    bool threadsOutliveTheLoop() const override;

private:
    std::unique_ptr<VTFBHelperDelegate> m_helperDelegate;
    std::optional<vt_wine_controller> m_wineController;
    std::vector<Observation> m_controllerObservations;
};

} // namespace vt
