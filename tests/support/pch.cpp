// Nothing but the precompiled header of the tests, which comes from the build.
