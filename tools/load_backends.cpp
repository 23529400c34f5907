// Preloaded into llama.cpp's model generator: it makes its models without loading a compute
// backend first, which a llama.cpp whose backends are modules beside it needs. Loading them
// here, before its main(), finds the CPU modules in the generator's own folder.
#include <dlfcn.h>

namespace {

[[gnu::constructor]] void loadBackends()
{
    using LoadAll = void (*)();
    if (auto loadAll = reinterpret_cast<LoadAll>(dlsym(RTLD_DEFAULT, "ggml_backend_load_all")))
        loadAll();
}

} // namespace
