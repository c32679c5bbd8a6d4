// modules/store: the module that a command, a fit or a receiver writes its result into. It is found where it
// exists and made where it does not, and one that was made here is removed again unless keep() says that it
// was written: whatever fails on the way, no half-made module is left behind.
//
//     result_module to;
//     if (to.find(name)) {
//         if (to.look(cn) != 0 || ...it does not fit: a line of the caller's...)
//             return -1;
//     } else if (to.make(cn, name, {mod_element::float32, nx, ny}) != 0)
//         return -1; // the line is printed
//     to.keep();     // from here on it stays, with whatever is in it
//     ...write through to.view()...
//
// The object belongs to one thread. While it lives, any number of threads may write through its view (or
// copies of that), to elements that are their own.
#pragma once

#include "modules/store/element.h"
#include "modules/store/view.h"

#include <span>
#include <string>

namespace kestrel {

// What to make where there is no such module. A size n > 0 is exact, -n at least n (and made n).
struct module_plan {
    mod_element element = mod_element::float32;
    int num_x = 0, num_y = 0;
    int num_t = 1;
    bool is_3d = false;
    const char *x_label = nullptr, *y_label = nullptr, *t_label = nullptr; // null: "X", "Y", "T"
    std::span<const std::string> labels{};                                 // of the frames
    int data_type = 0; // the header's, where it is none of these elements
};

class result_module {
  public:
    result_module() = default;
    result_module(const result_module &) = delete;
    result_module &operator=(const result_module &) = delete;
    ~result_module() { reset(); }

    // Links the module of that name. False, with errno set and without a line, when there is none.
    bool find(const char *name);

    // Links a new module as planned and looks at it: 0, or -1 after a line. One that exists is linked where
    // it fits the plan, and its labels stay as they are.
    int make(int cn, const char *name, const module_plan &plan);

    // The same for 4 x n bytes without a header, or what exists, whatever its size.
    int make_plain(int cn, const char *name, int n);

    // Looks at the header as it is now: 0, or -1 after a line.
    int look(int cn);

    explicit operator bool() const { return static_cast<bool>(link_); }
    bool is_new() const { return link_.is_new(); } // made here
    const std::string &name() const { return name_; }
    void *head() const { return link_.head(); }
    const module_view &view() const { return view_; } // what make() or look() saw

    void keep() { kept_ = true; }
    void reset(); // unlinks the module, and removes it where it is new and was not kept

  private:
    std::string name_;
    module_link link_;
    module_view view_;
    bool kept_ = false;
};

} // namespace kestrel
