// The code of a Windows resource module: none of its own. The module is a
// DLL for the resources it carries; the toolchain's start-up code is its only
// code.
