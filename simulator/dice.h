#pragma once

#include <QtGlobal>

#include <random>

/// Chance that can be repeated: the same seed gives the same throws on every machine.
class Dice {
public:
    explicit Dice(quint32 seed)
        : _engine(seed)
    {
    }

    /// 0 to @a count - 1. The distributions of the standard library differ from one to the next; the remainder does
    /// not.
    int below(int count) { return static_cast<int>(_engine() % static_cast<quint32>(count)); }

    /// True once in @a count throws on average; never for 0.
    bool oneIn(int count) { return count > 0 && below(count) == 0; }

private:
    std::mt19937 _engine;
};
