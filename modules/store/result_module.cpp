#include "modules/store/result_module.h"

#include "modules/store/headed.h"
#include "server/output.h"

#include <vector>

namespace kestrel {

namespace {

int data_type_of(const module_plan &plan) {
    return plan.data_type != 0 ? plan.data_type : mod_code_of(plan.element);
}

module_link make_headed(int cn, const char *name, const module_plan &plan) {
    module_link link;
    if (!plan.is_3d) {
        mod_make_2d(cn, name, plan.num_x, plan.num_y, plan.x_label, plan.y_label, data_type_of(plan), link);
        return link;
    }
    std::vector<const char *> labels;
    for (const std::string &label : plan.labels)
        labels.push_back(label.c_str());
    labels.push_back(nullptr);
    mod_make_3d(cn, name, {plan.num_x, plan.num_y, plan.num_t, plan.x_label, plan.y_label, plan.t_label},
                plan.labels.empty() ? nullptr : labels.data(), data_type_of(plan), "! ", link);
    return link;
}

// The size that app_mkmod_head has just made or checked.
bool reaches(int stored, int planned) {
    return stored >= planned && stored >= -static_cast<long long>(planned);
}

} // namespace

bool result_module::find(const char *name) {
    reset();
    name_ = name;
    link_ = module_link(name);
    return static_cast<bool>(link_);
}

int result_module::make(int cn, const char *name, const module_plan &plan) {
    reset();
    name_ = name;
    link_ = make_headed(cn, name, plan);
    if (!link_ || look(cn) != 0)
        return -1;
    if (view_.data_type == data_type_of(plan) && reaches(view_.num_x, plan.num_x) &&
        reaches(view_.num_y, plan.num_y) && reaches(view_.num_t, plan.is_3d ? plan.num_t : 1))
        return 0;
    sv_printf(cn, "! ERROR: module '%s' was changed by another process\n", name_.c_str());
    return -1;
}

int result_module::make_plain(int cn, const char *name, int n) {
    reset();
    name_ = name;
    link_ = app_mkmod_nohead(cn, name, n);
    return link_ ? 0 : -1;
}

int result_module::look(int cn) {
    return mod_look(cn, name_.c_str(), link_.head(), view_);
}

void result_module::reset() {
    if (link_.is_new() && !kept_)
        datamod_remove(name_.c_str(), link_.head());
    link_.reset();
    kept_ = false;
}

} // namespace kestrel
