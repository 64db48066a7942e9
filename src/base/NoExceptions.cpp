// What the C++ library calls where it would throw, and where it allocates, for a program that is
// linked with it and can catch nothing: each failure ends the program, as it does without this
// file. But then the code that throws, unwinds the stack and makes names of types readable stays
// out, a third of a small program. The linker refuses a second definition, so none of these can be
// taken for another by mistake.

#include <bits/functexcept.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

[[noreturn]] void endProgram(const char* what) {
  std::fputs(what, stderr);
  std::fputc('\n', stderr);
  std::abort();
}

// NOLINTBEGIN(cppcoreguidelines-owning-memory): these are what owners are made with.
void* allocate(std::size_t size) {
  // A null pointer would be no answer for an empty object.
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (!memory) endProgram("out of memory");
  return memory;
}
// NOLINTEND(cppcoreguidelines-owning-memory)

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the library's.
namespace std {

void __throw_bad_alloc() { endProgram("out of memory"); }
void __throw_bad_array_new_length() { endProgram("too long an array"); }
void __throw_bad_function_call() { endProgram("bad_function_call"); }
void __throw_logic_error(const char* what) { endProgram(what); }
void __throw_length_error(const char* what) { endProgram(what); }
void __throw_out_of_range(const char* what) { endProgram(what); }

void __throw_out_of_range_fmt(const char* format, ...) {
  va_list values;
  va_start(values, format);
  std::vfprintf(stderr, format, values);
  va_end(values);
  endProgram("");
}

/// Asked whether a type is that of this tag, by code without run-time types, for code that has
/// them: there is none.
bool _Sp_make_shared_tag::_S_eq(const type_info& /*unused*/) noexcept { return false; }

#ifdef _GLIBCXX_VERBOSE_ASSERT
void __glibcxx_assert_fail(const char* file, int line, const char* function,
                           const char* condition) noexcept {
  std::fprintf(stderr, "%s:%d: %s: ", file, line, function);
  std::fprintf(stderr, "Assertion '%s' failed.\n", condition);
  std::abort();
}
#endif

}  // namespace std

extern "C" [[noreturn]] void __cxa_pure_virtual();
extern "C" void __cxa_pure_virtual() { endProgram("pure virtual method called"); }
// NOLINTEND(bugprone-reserved-identifier)

// NOLINTBEGIN(cppcoreguidelines-owning-memory): these are what owners are made with.
void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*unused*/) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*unused*/) noexcept { std::free(memory); }
// NOLINTEND(cppcoreguidelines-owning-memory)
