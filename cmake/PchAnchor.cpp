// Only there so that the precompiled standard headers have a target of their own.
