#include "mcl/share_ptr.h"

#include "mcl/log.h"

namespace mcl {

share_obj::~share_obj() {
    if (refs_ != 0)
        NV_LOG("mcl::share_obj::~share_obj", "a shared object has been deleted with reference count %d", static_cast<int>(refs_));
}

void share_obj::add_ref() {
    scoped_lock guard(count_lock_);
    ++refs_;
}

bool share_obj::release_ref() {
    scoped_lock guard(count_lock_);
    if (refs_ == 0) return false;
    return --refs_ == 0;
}

uint32_t share_obj::ref_count() {
    scoped_lock guard(count_lock_);
    return refs_;
}

}  // namespace mcl
