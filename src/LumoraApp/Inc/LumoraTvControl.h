// Switches the TV off when the appliance engine asks for it.
#pragma once

class CLumoraTvControl {
public:
    CLumoraTvControl();
    ~CLumoraTvControl();

    // Whether the platform accepted the request.
    bool PowerOff();
};
