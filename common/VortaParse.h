// The abstract service: what the daemon runs once per start.
#pragma once

#include <string>

class VortaParse {
  public:
    VortaParse() = default;
    VortaParse(const VortaParse&) = delete;
    VortaParse& operator=(const VortaParse&) = delete;
    virtual ~VortaParse() = default;

    // Runs the whole service. `srvName` is the argument of the command-line option. Reports
    // nothing to the caller: each step logs its own failures.
    virtual void HandleFlow(std::string srvName) = 0;
};

// Each makes one service; the caller owns the object. They are defined with the services, so that
// common/ depends on none of them.
VortaParse* NewRainbowService();
VortaParse* NewCorvelService();
