// The service factory and its one product slot.
#include "common/VortaParseFactory.h"

VortaParseFactory* VortaParseFactory::instance_ = nullptr;
VortaParse* VortaParseFactory::product_ = nullptr;

VortaParseFactory* VortaParseFactory::GetInstance() {
    if (instance_ == nullptr) {
        instance_ = new VortaParseFactory();
    }
    return instance_;
}

void VortaParseFactory::ReleaseInstance() {
    delete instance_;
    instance_ = nullptr;
    delete product_;
    product_ = nullptr;
}

VortaParse* VortaParseFactory::CreateRainbow() {
    if (product_ == nullptr) {
        product_ = NewRainbowService();
    }
    return product_;
}

VortaParse* VortaParseFactory::CreateCorvel() {
    if (product_ == nullptr) {
        product_ = NewCorvelService();
    }
    return product_;
}
