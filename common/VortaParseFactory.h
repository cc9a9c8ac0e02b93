// The factory singleton that makes and owns the one service object of a run.
#pragma once

#include "common/VortaParse.h"

class VortaParseFactory {
  public:
    // The singleton, made on first call.
    static VortaParseFactory* GetInstance();

    // Deletes the factory and then the service object; either may be missing.
    static void ReleaseInstance();

    VortaParseFactory(const VortaParseFactory&) = delete;
    VortaParseFactory& operator=(const VortaParseFactory&) = delete;
    virtual ~VortaParseFactory() = default;

    // The service object. There is one product slot: once it is taken, both return what it holds,
    // whichever service that is. The factory keeps ownership.
    virtual VortaParse* CreateRainbow();
    virtual VortaParse* CreateCorvel();

  private:
    VortaParseFactory() = default;

    static VortaParseFactory* instance;
    static VortaParse* product;
};
