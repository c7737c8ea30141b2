// Internal operations of the fsutil module beyond its public functions.
#pragma once

namespace tevul {

// Removes everything inside the directory `name` (relative to the
// directory descriptor `at`, or AT_FDCWD), leaving the directory itself.
// Every step is taken from a descriptor, no link is followed (a link is
// removed as a link, also one swapped in during the walk), and the stack
// does not grow with the depth. Returns 0; ENOENT when a directory could
// not be opened (whatever the cause); -1 with errno when an entry could not
// be removed; ENOMEM. Stops at the first failure.
int empty_tree_at(int at, const char* name);

}  // namespace tevul
