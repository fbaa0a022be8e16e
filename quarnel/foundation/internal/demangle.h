// A demangler for C++ symbol names (the Itanium ABI that g++ and clang use)
// that allocates nothing and takes no lock, so that the crash report can name
// a frame from a module's dynamic symbols inside a signal handler.
//
// It covers the names functions usually have: nested and std:: names,
// constructors and destructors, operators and conversions, ABI tags,
// templates with type and integer arguments, template parameters,
// substitutions, pointers, references and const/volatile, the built-in
// types, vtables, typeinfo, guard variables, non-virtual thunks and clone
// suffixes ("[clone .cold]"). The text is the one the C++ runtime's
// demangler prints for the same name. A name it does not cover (function
// types, arrays, member pointers, packs, expressions, local and unnamed
// entities) is declined.
#ifndef QUARNEL_FOUNDATION_INTERNAL_DEMANGLE_H_
#define QUARNEL_FOUNDATION_INTERNAL_DEMANGLE_H_

namespace quarnel_internal {

// Writes the demangled form of `mangled` to out[0..cap), zero-terminated.
// Returns its length; -1 when the name is not a mangled C++ name, is declined,
// or its text does not fit (out is then unspecified).
int Demangle(const char* mangled, char* out, int cap);

}  // namespace quarnel_internal

#endif  // QUARNEL_FOUNDATION_INTERNAL_DEMANGLE_H_
