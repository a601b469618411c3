// The scenario of appmgr-emu --testsuite: a receiver as the public HbbTV
// test suite's pages expect it (their settings.js: two services of one
// transport stream, network 1; an object carousel on component tag 23 with
// a stream-event object; stream events on component tag 19; components,
// programmes, a parental rating and a configuration), and a timeline that
// runs the given groups one after another.
#pragma once

#include <string>
#include <vector>

namespace appmgr::emu {

constexpr const char* kTestsuiteScenarioName = "test suite";

// The group folders of a pages directory: those with an index.php, sorted.
std::vector<std::string> testsuiteGroups(const std::string& pages);

// Writes the scenario file and the carousel it serves into the existing
// directory dir, for the pages in `pages`, served by PHP on `port`. Returns
// the scenario file's path, or "" with the reason in *error.
std::string writeTestsuiteScenario(const std::string& dir, const std::string& pages, int port,
                                   const std::vector<std::string>& groups, std::string* error);

}  // namespace appmgr::emu
