// A precompiled header needs a source to be built with.
