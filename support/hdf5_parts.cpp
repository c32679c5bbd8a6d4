#include "support/hdf5_parts.h"

namespace kestrel {

void hdf5_quiet() {
    static const bool done = [] {
        H5dont_atexit(); // only heeded before anything else
        return H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr) >= 0;
    }();
    static_cast<void>(done);
}

tessera_id hdf5_text_type() {
    auto type = hdf5_own<H5Tclose>(H5Tcopy(H5T_C_S1));
    H5Tset_size(type.get(), H5T_VARIABLE);
    H5Tset_cset(type.get(), H5T_CSET_UTF8);
    return type;
}

bool hdf5_text(hid_t place, const char *name, const std::string &text, bool attribute) {
    const auto type = hdf5_text_type();
    const auto space = hdf5_own<H5Sclose>(H5Screate(H5S_SCALAR));
    const char *value = text.c_str();
    if (attribute) {
        const auto id =
            hdf5_own<H5Aclose>(H5Acreate2(place, name, type.get(), space.get(), H5P_DEFAULT, H5P_DEFAULT));
        return id.ok() && H5Awrite(id.get(), type.get(), &value) >= 0;
    }
    const auto id = hdf5_own<H5Dclose>(
        H5Dcreate2(place, name, type.get(), space.get(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
    return id.ok() && H5Dwrite(id.get(), type.get(), H5S_ALL, H5S_ALL, H5P_DEFAULT, &value) >= 0;
}

tessera_id hdf5_group(hid_t place, const char *name, const char *nx_class) {
    auto id = hdf5_own<H5Gclose>(H5Gcreate2(place, name, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
    if (id.ok() && !hdf5_text(id.get(), "NX_class", nx_class, true))
        return {};
    return id;
}

} // namespace kestrel
