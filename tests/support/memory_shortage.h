// A shortage of memory, for the threads that a test picks. Programs that link this have an operator
// new of its own.
#ifndef TESTS_SUPPORT_MEMORY_SHORTAGE_H
#define TESTS_SUPPORT_MEMORY_SHORTAGE_H

namespace PmTest {

// From now on operator new throws bad_alloc on each thread on which `isStarved`, which must
// allocate nothing, yields true. Null: on none.
void Starve(bool (*isStarved)());

}  // namespace PmTest

#endif  // TESTS_SUPPORT_MEMORY_SHORTAGE_H
