// The boundary to C: no exception crosses it.
#ifndef MOM_C_BOUNDARY_HPP
#define MOM_C_BOUNDARY_HPP

#include <new>

#include "qz_mom.h"

namespace mom
{

template <typename Act>
int32_t guarded(Act act) noexcept
{
    try {
        return act();
    } catch (const std::bad_alloc &) {
        return QZ_MOM_ENOMEM;
    }
}

}  // namespace mom
#endif
