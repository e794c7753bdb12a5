// Decoder of the motion program language (grammar in instruction.h).
#include "instruction.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include "timing.h"

namespace {

// Scratch buffers hold one whole line plus its terminator, so no token read
// from a line can overrun them.
constexpr int kLineBufferSize = kMaxInstructionLineLength + 1;

// Zone number -> (zone_ratio, zone_size). A lookup, not a formula: any other
// number is refused.
struct ZoneRow {
    int zone;
    double ratio;
    double size;
};
constexpr ZoneRow kZoneTable[] = {
    {0, 0.0, 0.0},      {1, 0.01, 1.0},     {5, 0.03, 5.0},     {10, 0.05, 10.0},
    {15, 0.08, 15.0},   {20, 0.1, 20.0},    {30, 0.15, 30.0},   {40, 0.2, 40.0},
    {50, 0.25, 50.0},   {60, 0.3, 60.0},    {80, 0.4, 80.0},    {100, 0.5, 100.0},
    {150, 0.75, 150.0}, {200, 1.0, 200.0},
};

// True when the text fits the line buffer (at most 255 characters).
bool FitsLine(const char* text) {
    return text != nullptr && strnlen(text, kLineBufferSize) <= static_cast<size_t>(kMaxInstructionLineLength);
}

// A comment line: its first whitespace-delimited token, read at most two
// characters wide, is "//".
bool IsCommentLine(const char* line) {
    char head[3] = {0, 0, 0};
    if (sscanf(line, "%2s", head) != 1) return false;
    return strcmp(head, "//") == 0;
}

void StripCarriageReturn(std::string* text) {
    if (!text->empty() && text->back() == '\r') text->pop_back();  // CRLF files
}

// A line whose keyword (the text up to the first space) is a move keyword.
bool IsMoveLine(const std::string& text) {
    const std::string keyword = text.substr(0, text.find(' '));
    return keyword == "MOVJ" || keyword == "MOVL" || keyword == "MOVC";
}

}  // namespace

int SpeedData::GetInstructionSpeedData(char* token) {
    if (!FitsLine(token)) return -1;
    const char* equal = strchr(token, '=');
    if (equal == nullptr) return -1;
    char name[kLineBufferSize] = {0};
    if (sscanf(token, "%[^=]", name) != 1) return -1;
    if (strcmp(name, "VJ") == 0) {
        joint_speed_ratio = atof(equal + 1) / 100.0;
        return 0;
    }
    if (strcmp(name, "V") == 0) {
        line_speed = atof(equal + 1);
        return 0;
    }
    return -1;
}

int ZoneData::GetInstructionZoneData(char* token) {
    if (token == nullptr) return -1;
    const char* z = strchr(token, 'z');
    if (z == nullptr) return -1;
    const int number = atoi(z + 1);
    for (const ZoneRow& row : kZoneTable) {
        if (row.zone == number) {
            zone = row.zone;
            zone_ratio = row.ratio;
            zone_size = row.size;
            return 0;
        }
    }
    return -1;
}

namespace {

// Longest wait a TIMER line may ask for, ms (an hour).
constexpr double kMaxTimerMs = 3600000.0;

}  // namespace

int TimerInstructionData::GetTimerInstructionData(char* line) {
    if (line == nullptr) return -1;
    const char* equal = strchr(line, '=');
    if (equal == nullptr) return -1;
    // The conversion starts on the "=" itself, so the stored time is 0 ms:
    // TIMER lines are accepted but take no time when a program runs.
    time = static_cast<int>(atof(equal));
    // What the program asked for, for runs that wait at TIMER lines.
    char* end = nullptr;
    const double ms = strtod(equal + 1, &end);
    while (*end == ' ' || *end == '\t' || *end == '\r') ++end;
    requested_time = end != equal + 1 && *end == '\0' && ms >= 0 && ms <= kMaxTimerMs && ms == static_cast<int>(ms)
                         ? static_cast<int>(ms)
                         : -1;
    return 0;
}

int DoutInstructionData::GetDoutInstructionData(const char* line) {
    output = -1;
    int number = -1, consumed = 0;
    char state[8] = {0};
    if (line == nullptr || sscanf(line, "DOUT %d %7s %n", &number, state, &consumed) != 2 || line[consumed] != '\0' ||
        number < 0 || number > kMaxDigitalOutput || (strcmp(state, "ON") != 0 && strcmp(state, "OFF") != 0))
        return -1;
    output = number;
    on = strcmp(state, "ON") == 0;
    return 0;
}

void TimerInstructionData::ExecuteInstruction() {
    tql::SleepMilliseconds(time);
}

int MoveInstructionData::GetMoveInstructionData(char* line) {
    if (!FitsLine(line)) {
        std::cout << "MOV format error !" << std::endl;
        return -1;
    }
    char keyword[kLineBufferSize] = {0};
    char speed_token[kLineBufferSize] = {0};
    char zone_token[kLineBufferSize] = {0};
    char point_token[kLineBufferSize] = {0};
    // Keyword, speed, zone and point list, e.g. "MOVJ VJ=100 z5 " + points.
    if (sscanf(line, "%s %s %s %s ", keyword, speed_token, zone_token, point_token) < 4) {
        std::cout << "MOV format error !" << std::endl;
        return -1;
    }
    // Speed and zone are checked before the keyword, so a bad speed is the
    // error reported even when other tokens are bad too.
    if (speed.GetInstructionSpeedData(speed_token) < 0) {
        std::cout << "Speed format error !" << std::endl;
        return -1;
    }
    if (zone.GetInstructionZoneData(zone_token) < 0) {
        std::cout << "Zone format error !" << std::endl;
        return -1;
    }
    if (strcmp(keyword, "MOVJ") == 0) {
        type = kMoveJoint;
    } else if (strcmp(keyword, "MOVL") == 0) {
        type = kMoveLinear;
    } else if (strcmp(keyword, "MOVC") == 0) {
        type = kMoveCircular;
    } else {
        std::cout << "MOV type is invalid" << std::endl;
        return -1;
    }
    for (double& p : position) p = 0.0;
    position_num = GetLineArray(point_token, position, kMaxInstructionPositionNum);
    return 0;
}

int InstructionUnit::DecodeInstruction(char* line) {
    if (!FitsLine(line)) return -1;
    // The keyword is everything up to the first space (tabs do not separate).
    char keyword[kLineBufferSize] = {0};
    if (sscanf(line, "%[^ ]", keyword) != 1) return -1;
    if (strcmp(keyword, "MOVJ") == 0 || strcmp(keyword, "MOVL") == 0 || strcmp(keyword, "MOVC") == 0) {
        kind = kMoveInstruction;
        return data.move_data.GetMoveInstructionData(line);
    }
    if (strcmp(keyword, "TIMER") == 0) {
        kind = kTimerInstruction;
        return data.timer_data.GetTimerInstructionData(line);
    }
    if (strcmp(keyword, "DOUT") == 0) {
        // Every DOUT line is valid; its output and state are read for runs
        // that switch outputs (a line that does not read keeps output -1).
        kind = kDoutInstruction;
        data.dout_data.GetDoutInstructionData(line);
        return 0;
    }
    return -1;
}

int GetLineArray(const char* text, double* values, int max) {
    if (text == nullptr) return 0;
    const char* p = text;
    int i = 0;
    for (; i < max; ++i) {
        values[i] = atof(p);
        p = strchr(p, ',');
        if (p == nullptr) break;
        ++p;
    }
    return i + 1;
}

int DecodeInstructionFile(std::string file_name, std::list<InstructionUnit>* list) {
    if (list == nullptr) return -1;
    std::ifstream file(file_name);
    if (!file.is_open()) {
        std::cout << "Open " << file_name << " failure! " << std::endl;
        return -1;
    }

    int instruction_count = 0;  // instructions accepted
    int line_count = 0;         // physical lines read, comments included
    std::string text;
    // One scratch record for every line: a move line writes only the speed
    // field it names (VJ= or V=), so the other one keeps the value of the
    // last line that named it.
    InstructionUnit scratch;
    // Strictly greater: at most kMaxInstructionNum + 1 instructions are
    // collected; the conversion into moves refuses a program that long.
    while (instruction_count <= kMaxInstructionNum && std::getline(file, text)) {
        ++line_count;
        StripCarriageReturn(&text);
        if (text.size() > static_cast<size_t>(kMaxInstructionLineLength)) {
            std::cout << "Line " << line_count << " is longer than " << kMaxInstructionLineLength
                      << " characters !" << std::endl;
            return -1;
        }
        char line[kLineBufferSize] = {0};
        memcpy(line, text.c_str(), text.size() + 1);
        if (IsCommentLine(line)) continue;

        if (scratch.DecodeInstruction(line) < 0) {
            // The number counts instructions, not physical lines.
            std::cout << "Line " << instruction_count + 1 << "Format error !" << std::endl;
            return -1;
        }
        ++instruction_count;
        scratch.line_number = line_count;
        list->push_back(scratch);
    }
    // Lines past the collected instructions are not decoded. TIMER and DOUT
    // lines take no time and set nothing, so leaving them out changes no
    // motion; a move left out would silently cut the program short.
    if (instruction_count > kMaxInstructionNum) {
        while (std::getline(file, text)) {
            ++line_count;
            StripCarriageReturn(&text);
            if (IsMoveLine(text)) {
                std::cout << "Line " << line_count << " exceeds the limit of " << kMaxInstructionNum + 1
                          << " instructions !" << std::endl;
                return -1;
            }
        }
    }
    if (instruction_count == 0) {
        std::cout << "Error : " << file_name << " is an empty file." << std::endl;
        return -1;
    }
    return 0;
}
