// Only there so that the precompiled header has a target of its own; it holds no test.
