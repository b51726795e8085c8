#include "core/wait/sleep_instructions.h"

#include <pthread.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>

// Each function is one piece of machine code, for nothing may use the stack between the first mark
// and the last look at the marks. Words below the stack's end belong to nobody (in a 64-bit process
// from 128 bytes further down on), but for the 16 bytes that a system call takes in a 32-bit one.
//
// The kernel puts its frame below the stack's end, and begins with the floating-point state: at the
// next address that is a multiple of 64 and leaves room for it and for the number behind it. The
// state's size is a multiple of 64, or 8 more. So with the stack's end 48 bytes above a multiple of
// 64 the number lies 40 or 48 bytes below it. The marks stand 32 to 64 bytes below it.

// clang-format off
#ifdef __x86_64__
#define UNUSED "-128"
#define STACK "%%rsp"
#define FRAME "%%r8"
#define POINTER "%%rsi"
#define RESULT "%%rax"
#define FIRST "%%edi"
#define SECOND "%%rsi"
#define THIRD "%%rdx"
#define SIZE_OF_SET "mov $8, %%r10d\n"
#define SYSTEM_CALL "syscall\n"
#define TAKE "mov %[semop], %%eax\n mov %c[semid](%%r8), %%edi\n mov %%r8, %%rsi\n mov $1, %%edx\n" SYSTEM_CALL
#define CLOBBERS "rcx", "rdx", "rsi", "rdi", "r10", "r11", "memory", "cc"
constexpr int kSemop = SYS_semop;
#else
#define UNUSED "0"
#define STACK "%%esp"
#define FRAME "%%edi"
#define POINTER "%%esi"
#define RESULT "%%eax"
#define FIRST "%%ebx"
#define SECOND "%%ecx"
#define THIRD "%%edx"
#define SIZE_OF_SET "mov $8, %%esi\n"
#define SYSTEM_CALL "call *%%gs:0x10\n" // the kernel's own way in, as the C library has it
#define TAKE "mov %[ipc], %%eax\n mov %[semop], %%ebx\n mov %c[semid](%%edi), %%ecx\n mov $1, %%edx\n xor %%esi, %%esi\n" SYSTEM_CALL
#define CLOBBERS "ebx", "ecx", "edx", "esi", "memory", "cc"
constexpr int kSemop = 1; // of ipc(): a 32-bit process has no semop() of its own
#endif

#define IN(field) "%c[" field "](" FRAME ")"
#define FOR_EACH_MARK(instruction)                                                                 \
    ".set halvo_mark, 36\n .rept %c[words]\n" instruction "\n .set halvo_mark, halvo_mark + 4\n .endr\n"
#define MARK UNUSED "-halvo_mark(" STACK ")"
#define PLANT_MARKS FOR_EACH_MARK("movl %[mark], " MARK)
#define GO_IF_CHANGED(label) FOR_EACH_MARK("cmpl %[mark], " MARK "\n jne " label)

#define SET_MASK(how, set, before)                                                                 \
    "mov %[sigprocmask], %%eax\n mov " how ", " FIRST "\n mov " IN(set) ", " SECOND "\n" before    \
    SIZE_OF_SET SYSTEM_CALL
#define KEEP_AWAY(before)                                                                          \
    SET_MASK("%[block]", "everything", before) "movl $1, " IN("held") "\n xor %%eax, %%eax\n"
#define INTO_OUTSIDE "mov " IN("outside") ", " THIRD "\n"
#define NOWHERE "xor %%edx, %%edx\n"
#define TELL_SIGNALLED                                                                             \
    GO_IF_CHANGED("8f") "jmp 9f\n" "8: movl $1, " IN("signalled") "\n" "9:"

#define ALIGN_STACK                                                                                \
    "mov " STACK ", " IN("stack") "\n and $-64, " STACK "\n sub $16, " STACK "\n"
#define RESTORE_STACK "mov " IN("stack") ", " STACK "\n"

#define FIELD(name) [name] "i"(offsetof(SleepFrame, name))
#define OPERANDS                                                                                   \
    [mark] "i"(kMarkWord), [words] "i"(kMarkWords), [sigprocmask] "i"(SYS_rt_sigprocmask),         \
    [block] "i"(SIG_BLOCK), [setmask] "i"(SIG_SETMASK), [semop] "i"(kSemop),                       \
    [interrupted] "i"(-EINTR), FIELD(semid), FIELD(everything), FIELD(outside), FIELD(state),      \
    FIELD(wanted), FIELD(looks), FIELD(marks), FIELD(held), FIELD(signalled), \
    FIELD(stack)
// clang-format on

namespace halvo {

static_assert(offsetof(SleepFrame, operation) == 0); // the frame's address serves for it

// Machine code that moves the stack's end stands in functions whose frames are found by another
// register: those that take room on the stack of a size that the compiler does not know.
#define FIND_FRAME_ELSEWHERE                                                                       \
    size_t nothing = 0;                                                                            \
    __asm__("" : "+r"(nothing));                                                                   \
    [[maybe_unused]] void *volatile room = __builtin_alloca(nothing)

#ifdef __x86_64__
#define FRAME_IN "r"(at), OPERANDS
// NOLINTNEXTLINE(bugprone-macro-parentheses)
#define FRAME_REGISTER register SleepFrame *at __asm__("r8") = &frame
#else
#define FRAME_IN "D"(at), [ipc] "i"(SYS_ipc), OPERANDS
#define FRAME_REGISTER SleepFrame *at = &frame
#endif

// clang-format off

int look_and_hold(SleepFrame &frame) noexcept {
    FIND_FRAME_ELSEWHERE;
    long result = 0;
    FRAME_REGISTER;
    __asm__ volatile(
        ALIGN_STACK
        PLANT_MARKS
        "mov " IN("looks") ", %%ecx\n"
        "mov " IN("state") ", " POINTER "\n"
        "mov " IN("wanted") ", %%edx\n"
        "mov $1, %%eax\n"
        "1: sub $1, %%ecx\n"
        "js 2f\n"
        "cmp %%edx, (" POINTER ")\n"
        "je 3f\n"
        "pause\n"
        "jmp 1b\n"
        "2: xor %%eax, %%eax\n"
        "cmpl $0, " IN("held") "\n"
        "jne 3f\n"
        KEEP_AWAY(INTO_OUTSIDE)
        "3:" TELL_SIGNALLED
        RESTORE_STACK
        : "=&a"(result)
        : FRAME_IN
        : CLOBBERS);
    return static_cast<int>(result);
}

int let_in_and_sleep(SleepFrame &frame) {
    FIND_FRAME_ELSEWHERE;
    long result = 0;
    FRAME_REGISTER;
    __asm__ volatile(
        ALIGN_STACK
        PLANT_MARKS
        "lea " UNUSED "-32-4*%c[words](" STACK "), " RESULT "\n"
        "mov " RESULT ", " IN("marks") "\n"
        "movl $0, " IN("held") "\n"
        SET_MASK("%[setmask]", "outside", NOWHERE)
        GO_IF_CHANGED("1f")
        TAKE
        "jmp 2f\n"
        "1: mov %[interrupted], " RESULT "\n"
        "2: xor %%edx, %%edx\n"
        "mov " THIRD ", " IN("marks") "\n"
        "test " RESULT ", " RESULT "\n"
        "jnz 3f\n"
        "mov " IN("state") ", " POINTER "\n"
        "test " POINTER ", " POINTER "\n"
        "jz 3f\n"
        "mov " IN("wanted") ", %%edx\n"
        "cmp %%edx, (" POINTER ")\n"
        "je 3f\n"
        KEEP_AWAY(NOWHERE)
        "3:" TELL_SIGNALLED
        RESTORE_STACK
        : "=&a"(result)
        : FRAME_IN
        : CLOBBERS);
    return static_cast<int>(result);
}

// clang-format on

// Owns nothing that would have to be given back: the unwinder may come from between two calls.
int let_in_and_sleep_cancellable(SleepFrame &frame) {
    int before = 0;
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &before);
    const int result = let_in_and_sleep(frame);
    pthread_setcanceltype(before, nullptr);
    return result;
}

} // namespace halvo
