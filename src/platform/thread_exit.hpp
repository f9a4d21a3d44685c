#pragma once

// The forced unwind by which glibc ends a thread (pthread_exit, pthread_cancel; Python ends a
// foreign thread that way when it asks for the interpreter while that finalises) runs through
// `catch (...)` like an exception, but it is none: a handler that does not rethrow it makes
// glibc abort the process ("FATAL: exception not rethrown"). Every catch-all that the
// application's code or a cancellation point can reach therefore starts with
//
//     } catch (...) {
//       if (platform::endingThread())
//         throw;
//
// Two rules come with it: a handler calls nothing that may reach the application (a foreign
// unwind caught while another exception is being handled ends in std::terminate), so handlers
// only record what happened and the report follows the try block; and a function on such a path
// is not noexcept.
//
// The forced unwind is no C++ exception, so std::current_exception() is empty inside its
// handler. (Catching abi::__forced_unwind by name would tell it apart as well, but it binds a
// reference to no object, which UBSan rightly reports.)

#include <exception>

namespace zonaris::platform {

/// Inside `catch (...)`: true when what is caught is not a C++ exception, which is rethrown.
inline bool endingThread() noexcept {
  return !std::current_exception();
}

}  // namespace zonaris::platform
