#include "sim/modem/resultcodes.h"

namespace sim {

namespace {

struct Result
{
    ResultCode code;
    int number;
    const char* text;
};

constexpr Result results[] = {
    {ResultCode::Ok, 0, "OK"},       {ResultCode::Connect, 1, "CONNECT"},
    {ResultCode::Ring, 2, "RING"},   {ResultCode::NoCarrier, 3, "NO CARRIER"},
    {ResultCode::Error, 4, "ERROR"}, {ResultCode::NoDialTone, 6, "NO DIALTONE"},
    {ResultCode::Busy, 7, "BUSY"},   {ResultCode::NoAnswer, 8, "NO ANSWER"},
};

struct Speed
{
    int bitsPerSecond;
    int number;
};

constexpr Speed speeds[] = {
    {600, 9},    {1200, 5},   {2400, 10},  {4800, 11},  {7200, 13},  {9600, 12},
    {12000, 14}, {14400, 15}, {19200, 16}, {38400, 17}, {57600, 18}, {115200, 19},
};

const Result& find(ResultCode code)
{
    for (const Result& result : results) {
        if (result.code == code)
            return result;
    }
    return results[0];
}

} // namespace

QByteArray resultText(ResultCode code)
{
    return find(code).text;
}

int resultNumber(ResultCode code)
{
    return find(code).number;
}

int connectNumber(int bitsPerSecond)
{
    for (const Speed& speed : speeds) {
        if (speed.bitsPerSecond == bitsPerSecond)
            return speed.number;
    }
    return resultNumber(ResultCode::Connect);
}

} // namespace sim
