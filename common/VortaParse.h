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

// Makers of the services, defined beside them, so that nothing here knows a service's class. The
// caller owns the object.
VortaParse* NewRainbowService();
VortaParse* NewCorvelService();
