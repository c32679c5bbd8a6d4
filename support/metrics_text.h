// support: lines of the Prometheus text form, in which counts leave the process.
#pragma once

#include <string>
#include <string_view>

namespace kestrel {

// The two lines in front of a family's samples; `type` is "counter", "gauge" or "histogram".
inline void metric_family(std::string &out, std::string_view name, std::string_view type,
                          std::string_view help) {
    out.append("# HELP ").append(name).append(" ").append(help).append("\n");
    out.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

// A label's value, in quotes.
inline std::string metric_quoted(std::string_view value) {
    std::string quoted = "\"";
    for (const char c : value) {
        if (c == '\\' || c == '"')
            quoted += '\\';
        if (c == '\n')
            quoted += "\\n";
        else
            quoted += c;
    }
    return quoted + "\"";
}

// One sample; `labels` is what stands in the braces, as  "link=" + metric_quoted(name).
inline void metric_sample(std::string &out, std::string_view name, std::string_view labels,
                          const std::string &value) {
    out.append(name);
    if (!labels.empty())
        out.append("{").append(labels).append("}");
    out.append(" ").append(value).append("\n");
}

// A family of one sample.
inline void metric_single(std::string &out, std::string_view name, std::string_view type,
                          std::string_view help, const std::string &value) {
    metric_family(out, name, type, help);
    metric_sample(out, name, {}, value);
}

} // namespace kestrel
