#pragma once

// The tests of this library may let an allocation fail. All operators new of the program go
// through one countdown: at zero, that allocation throws std::bad_alloc. Negative: none does.
extern long allocationsUntilFailure;
