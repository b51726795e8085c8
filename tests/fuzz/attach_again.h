// core/attach.cpp, which attaches once in the life of a process, and a way to begin anew.
#pragma once

namespace halvo::fuzz {

void forget_attachment();

} // namespace halvo::fuzz
