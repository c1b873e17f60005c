// Every `new` of the program, the library's too, asks the test first.

#ifndef TARNFW_TESTS_FAKE_ALLOCATIONS_H
#define TARNFW_TESTS_FAKE_ALLOCATIONS_H

namespace allocations {

// The test's own: whether the allocation that is asked for fails. Called before the first test too.
bool fails();

}  // namespace allocations

#endif
