#pragma once

/// Runs a function in this process after the destructors of all objects with static storage, those of the libraries
/// included, while other threads are still alive. For the child of a death test; the last one that is given wins.
void runAfterStaticDestructors(void (*function)());
