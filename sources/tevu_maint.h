// Delete, move and cleanup: what the watcher needs of the checked move
// beyond the exported functions (declared in tevul.h).
#ifndef TEVUL_TEVU_MAINT_H
#define TEVUL_TEVU_MAINT_H

#include <cstddef>

namespace tevul {

// Makes the tags of `count` renames follow, in the order given, within one
// volume and in one checked transaction: each as tevu_move_checked() moves
// it within a volume (renamed, or merged into rows already at its
// destination), so that a chain a->b->c ends at c. The daemon is woken
// once. All or nothing: returns 0 when every tag stands at its destination,
// otherwise a positive errno with nothing changed (EXDEV when a path lies on
// another volume than the first; the other results as tevu_move_checked()).
int move_many_within(const char* const* from, const char* const* to, std::size_t count);

}  // namespace tevul

#endif  // TEVUL_TEVU_MAINT_H
