// The words and values of scenario files: splitting a value into words,
// numbers, yes/no, application ids, escaped bytes and the names a scenario
// uses for the library's enumerations. Pure functions, shared by the file's
// reader, the step kinds and the run.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace appmgr::emu {

// ---- words ------------------------------------------------------------------

std::string lower(std::string s);
std::string trim(const std::string& s);
// Splits at blanks.
std::vector<std::string> words(const std::string& s);
// Takes the first word off s (and the blanks around it); "" when there is none.
std::string takeWord(std::string& s);
// Splits at commas and blanks.
std::vector<std::string> listItems(const std::string& s);
// "a, b, c".
std::string joined(const std::vector<std::string>& items);
// Letters, digits, '_' and '-', at least one.
bool validName(const std::string& s);

// ---- values -----------------------------------------------------------------

// A C integer in [min, max]: decimal, 0x hexadecimal or 0 octal, optionally
// signed.
std::optional<long> number(const std::string& text, long min, long max);
// yes/no, true/false, on/off, 1/0.
std::optional<bool> boolean(const std::string& text);
// "1.5.1": three numbers, each in [0, max].
bool parseVersion(const std::string& text, int max, int out[3]);
std::string formatVersion(const int v[3]);
// "0x10.1" / "16.1" -> organisation and application id.
bool parseAppIds(const std::string& text, int* org, int* app);
std::string formatAppIds(int org, int app);
// Splits "a|b|c|" or "a|b|c" into fields (a last "|" is optional).
std::vector<std::string> splitExpectedFields(const std::string& text);
// Bytes written with escapes: \n, \r, \t, \0, \\ and \xNN (two hex digits);
// other characters stand for themselves. Nullopt (and the reason in *error)
// for a malformed escape.
std::optional<std::string> unescapeBytes(const std::string& text, std::string* error);
// The placeholder replaced by "127.0.0.1:PORT" of the emulator's HTTP
// responder in URLs, browser messages and expected texts.
constexpr const char* kHttpPlaceholder = "{http}";
// Replaces every {http} by host.
std::string expandPlaceholders(const std::string& text, const std::string& host);
// path as it is when absolute, else relative to the directory of file.
std::string resolveAgainst(const std::string& file, const std::string& path);

// ---- the library's enumerations by name ---------------------------------------

// AUTOSTART, PRESENT, KILL, DISABLED or a number 0-255.
std::optional<int> controlCode(const std::string& text);
extern const char* const kControlCodeHelp;
// "AUTOSTART" for 1 ... ; nullptr for other numbers.
const char* controlCodeName(int code);
// on, off, checking or a number.
std::optional<int> networkValue(const std::string& text);
// A capture's speed: "max" (as fast as it is read: false) or "1" (paced by
// its PCR: true).
std::optional<bool> captureSpeed(const std::string& text);
extern const char* const kCaptureSpeedHelp;
// The library's states by their short names (deinitialized ... initialized).
std::optional<int> stateValue(const std::string& text);
// A browser connection by name (application, dtvplugins, ...), as its index.
std::optional<int> connectionIndex(const std::string& text);
// The launch types of Hbbtv_AM_Launch_Application by name ("broadcast" is
// eLaunchFormBroadcastApp = 0 ... "other" = 9); -1 for an unknown name.
int launchTypeValue(const std::string& name);
const char* launchTypeName(int value);

}  // namespace appmgr::emu
