// Linked only into the self-contained module (SIGNING_SELF_CONTAINED), whose libstdc++ is a copy
// of its own: nothing outside the module uses it.
//
// libstdc++ keeps an emergency pool for exceptions thrown while malloc fails (about 70 KiB). It is
// allocated when the library's code is loaded and freed only on request, through
// __gnu_cxx::__freeres (the hook memory checkers call at exit). Inside the module, every dlopen
// after a dlclose would load a fresh copy and allocate a fresh pool: the request is made when the
// module is unloaded, so that loading and unloading it leaves no memory behind.

namespace __gnu_cxx {
void __freeres();  // libstdc++'s, defined in its eh_alloc.cc
}

namespace {

struct FreeTheEmergencyPool {
    FreeTheEmergencyPool() = default;
    FreeTheEmergencyPool(const FreeTheEmergencyPool&) = delete;
    FreeTheEmergencyPool& operator=(const FreeTheEmergencyPool&) = delete;
    ~FreeTheEmergencyPool() { __gnu_cxx::__freeres(); }
};

const FreeTheEmergencyPool freeAtUnload;

}  // namespace
