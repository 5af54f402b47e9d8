#include "core/settings_snapshot.h"

#include <cstdint>
#include <cstring>

#include "core/data_set.h"
#include "core/settings_table.h"

namespace {

size_t Value_Size(int kind) {
  return kind == SK_INT ? sizeof(int) : kind == SK_REAL ? sizeof(double) : sizeof(int64_t);
}

// Calls f(member address, size) for each setting with a member.
template <class F> void For_Each_Member(Data_Set &ds, F f) {
  for (int i = 0; i < nsettings_table; i++) {
    const Setting_Entry &e = settings_table[i];
    if (e.member)
      f(e.member(ds), Value_Size(e.kind));
  }
}

} // namespace

void Settings_Snapshot::Take(Data_Set &ds) {
  bytes.clear();
  For_Each_Member(ds, [this](void *p, size_t n) {
    const auto *b = static_cast<const unsigned char *>(p);
    bytes.insert(bytes.end(), b, b + n);
  });
}

void Settings_Snapshot::Restore(Data_Set &ds) const {
  size_t at = 0;
  For_Each_Member(ds, [this, &at](void *p, size_t n) {
    if (at + n <= bytes.size())
      std::memcpy(p, bytes.data() + at, n);
    at += n;
  });
}
