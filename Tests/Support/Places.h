#pragma once

// Where things lie that tests use: paths that only the build knows. Every test program has the first two, and of the others
// those that its CMakeLists.txt gives it (utilia_places); the linker refuses one that was not given.
//
// They are data of one small file of each program. As macros they would make every file of the tests another one in
// another checkout, and a compiler cache would never know one again.

namespace utilia::test::places {

extern const char kTestData[];  // the folder Tests/Data
extern const char kScreenReader[];

extern const char kAgentProgram[];
extern const char kAnsweringAlert[];
extern const char kControlProgram[];
extern const char kDeafServer[];
extern const char kDesktopServices[];
extern const char kEmptyModule[];
extern const char kFloodingModule[];
extern const char kForeignModule[];
extern const char kGtkTool[];
extern const char kHeapCountLibrary[];
extern const char kKeepAwakeBundle[];
extern const char kLateLoader[];
extern const char kLibrary[];
extern const char kLoginManager[];
extern const char kMoonPhaseBundle[];
extern const char kPanel[];
extern const char kRecordingModule[];
extern const char kScreenCaptureBundle[];
extern const char kScreenCaptureProgram[];
extern const char kSettingsPortal[];
extern const char kStartUpTool[];
extern const char kTimerBundle[];
extern const char kTimerProgram[];
extern const char kToolLauncherBundle[];

}  // namespace utilia::test::places
