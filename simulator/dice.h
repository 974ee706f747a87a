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

    /// A number from 0 to \a count - 1, \a count being 1 or more. It is the remainder of a division, as the numbers of
    /// std::uniform_int_distribution differ between standard libraries.
    int below(int count) { return static_cast<int>(_engine() % static_cast<quint32>(count)); }

    /// True once in \a count throws on average; never for 0.
    bool oneIn(int count) { return count > 0 && below(count) == 0; }

private:
    std::mt19937 _engine;
};
