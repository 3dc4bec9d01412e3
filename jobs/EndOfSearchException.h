#pragma once

#include <exception>

// Thrown by a walk's fetch step to end the walk; the walk treats it as a normal finish.
class EndOfSearchException : public std::exception {};
