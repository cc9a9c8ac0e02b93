// The service factory and its one product slot.
#include "common/VortaParseFactory.h"

VortaParseFactory* VortaParseFactory::instance = nullptr;
VortaParse* VortaParseFactory::product = nullptr;

VortaParseFactory* VortaParseFactory::GetInstance() {
    if (instance == nullptr) {
        instance = new VortaParseFactory();
    }
    return instance;
}

void VortaParseFactory::ReleaseInstance() {
    delete instance;
    instance = nullptr;
    delete product;
    product = nullptr;
}

VortaParse* VortaParseFactory::CreateRainbow() {
    if (product == nullptr) {
        product = NewRainbowService();
    }
    return product;
}

VortaParse* VortaParseFactory::CreateCorvel() {
    if (product == nullptr) {
        product = NewCorvelService();
    }
    return product;
}
