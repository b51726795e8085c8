/**
 * Java access to Halvo IPC, the message queues that the processes of a gateway share.
 *
 * <p>{@link com.morvesk.halvo.ipc.Channel} and {@link com.morvesk.halvo.ipc.FileQueue} are for
 * programs: ends that are closed, transactions ({@link com.morvesk.halvo.ipc.Batch},
 * {@link com.morvesk.halvo.ipc.Marked}), waits that an interrupt ends, exceptions that tell what
 * failed. {@link com.morvesk.halvo.ipc.IPCFunctions} and {@link com.morvesk.halvo.ipc.LiveStat} are
 * the bare natives, with result codes. {@link com.morvesk.halvo.ipc.TimeoutMonitor} runs the
 * timeout monitor, without which no timeout of the process ever fires.
 *
 * <p>The library uses the signal {@code SIGUSR2}. A program that also uses Flight Recorder or
 * another tool that suspends threads must start the VM with another signal for that, for example
 * with the environment variable {@code _JAVA_SR_SIGNUM=40}.
 */
package com.morvesk.halvo.ipc;
