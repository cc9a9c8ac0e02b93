// A factory interface library without the function, as after a mismatched update.
extern "C" int HalSetOtherInfo() {
    return 0;
}
