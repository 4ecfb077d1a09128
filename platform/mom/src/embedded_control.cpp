// The controls of the embedded store (qz_mom_embedded.h).
#include <new>

#include "c_boundary.hpp"
#include "embedded_store.hpp"

namespace
{

// Calls `act` with the open store of that name.
template <typename Act>
int32_t with_store(const char *name, Act act)
{
    return mom::guarded([&]() -> int32_t {
        const auto store = name != nullptr ? mom::embedded_store::find(name) : nullptr;
        return store != nullptr ? act(*store) : QZ_MOM_EINVAL;
    });
}

}  // namespace

extern "C" {

int32_t qz_mom_embedded_seed(const char *name, uint64_t seed)
{
    return with_store(name, [&](auto &store) { return store.seed(seed), QZ_MOM_OK; });
}

int32_t qz_mom_embedded_lose(const char *name)
{
    return with_store(name, [](auto &store) { return store.lose(), QZ_MOM_OK; });
}

int32_t qz_mom_embedded_restore(const char *name)
{
    return with_store(name, [](auto &store) { return store.restore(), QZ_MOM_OK; });
}

int32_t qz_mom_embedded_put_raw(const char *name, uint32_t db, const char *key, const void *bytes, size_t size,
                                int32_t as_hash)
{
    return with_store(name, [&](auto &store) -> int32_t {
        if (key == nullptr || (bytes == nullptr && size != 0))
            return QZ_MOM_EINVAL;
        if (!store.has_database(db))
            return QZ_MOM_EDB;
        mom::content body{as_hash != 0 ? mom::form::hash : mom::form::whole, {}};
        if (size != 0)
            body.bytes.assign(static_cast<const char *>(bytes), size);
        store.put_raw(db, key, std::move(body));
        return QZ_MOM_OK;
    });
}

int32_t qz_mom_embedded_count(const char *name, uint32_t db)
{
    return with_store(name, [&](auto &store) { return store.has_database(db) ? store.count(db) : QZ_MOM_EDB; });
}

}  // extern "C"
