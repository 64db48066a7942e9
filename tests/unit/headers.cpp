// Empty: the target that compiles the shared headers needs a source.
