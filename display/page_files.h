// display: the files of the page, read once at the start: no path from outside ever reaches the file system.
#pragma once

#include <map>
#include <string>

namespace kestrel::display {

struct page_file {
    std::string type; // of its contents, for the browser
    std::string contents;
};

// By the path in the URL, "/" for index.html. Empty, after a line on standard error, when the folder has no index.html.
std::map<std::string, page_file, std::less<>> read_page(const std::string &folder);

// Where the page is: beside the program when it was built, under share/ when it was installed.
std::string page_folder();

} // namespace kestrel::display
