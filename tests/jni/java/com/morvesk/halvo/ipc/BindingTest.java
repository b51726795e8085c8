package com.morvesk.halvo.ipc;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.lang.reflect.Field;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import org.junit.Test;

/** The classes and the library fit together. */
public class BindingTest {
    private static int boundNatives(Class<?> type) {
        int count = 0;
        for (Method method : type.getDeclaredMethods()) {
            if (Modifier.isNative(method.getModifiers())) {
                String symbol = "Java_" + type.getName().replace('.', '_') + "_" + method.getName();
                assertTrue(symbol, TestNatives.exports(symbol));
                count++;
            }
        }
        return count;
    }

    @Test
    public void everyDeclaredNativeIsInTheLibrary() {
        assertEquals(51, boundNatives(IPCFunctions.class));
        assertEquals(8, boundNatives(LiveStat.class));
        assertEquals(11, boundNatives(ChannelCalls.class));
        assertEquals(5, boundNatives(FileQueueCalls.class));
    }

    private interface NativeValue {
        int of(String name);
    }

    private static int sameConstants(Class<?> type, String prefix, NativeValue nativeValue)
            throws Exception {
        int count = 0;
        for (Field field : type.getFields()) {
            if (field.getName().startsWith(prefix)) {
                assertEquals(field.getName(), nativeValue.of(field.getName()), field.getInt(null));
                count++;
            }
        }
        return count;
    }

    @Test
    public void constantsHaveTheValuesOfTheLibrary() throws Exception {
        assertEquals(26, sameConstants(LiveStat.class, "IID_", TestNatives::variable));
        assertEquals(18, sameConstants(IPCFunctions.class, "ESMS_", TestNatives::resultCode));
        for (Field field : IPCFunctions.class.getFields()) {
            assertEquals(field.getName(), HalvoException.nameOf(field.getInt(null)));
        }
        assertEquals("unknown code", HalvoException.nameOf(-18));
        assertEquals("unknown code", HalvoException.nameOf(1));
    }

    private static String loadFailure(String library) throws Exception {
        String kept = System.getProperty("halvoipc.library");
        URL jar = IPCFunctions.class.getProtectionDomain().getCodeSource().getLocation();
        try (URLClassLoader loader = new URLClassLoader(new URL[] {jar}, null)) {
            if (library == null) {
                System.clearProperty("halvoipc.library");
            } else {
                System.setProperty("halvoipc.library", library);
            }
            String name = LiveStat.class.getName();
            return assertThrows(UnsatisfiedLinkError.class,
                    () -> Class.forName(name, true, loader)).getMessage();
        } finally {
            System.setProperty("halvoipc.library", kept);
        }
    }

    @Test
    public void aLibraryThatIsNotFoundSaysWhatToDo() throws Exception {
        String named = loadFailure("/nowhere/libhalvoipc.so");
        assertTrue(named, named.contains("named by the property halvoipc.library"));
        assertTrue(named, named.contains("/nowhere/libhalvoipc.so"));
        String searched = loadFailure(null);
        assertTrue(searched, searched.contains("no halvoipc in java.library.path"));
        assertTrue(searched, searched.contains("-Dhalvoipc.library=<full path of libhalvoipc.so>"));
        assertTrue(searched, searched.contains("-Djava.library.path=<its directory>"));
    }

    @Test
    public void aLibraryOfTheOtherWidthSaysSo() throws Exception {
        byte[] library = Files.readAllBytes(Paths.get(System.getProperty("halvoipc.library")));
        library[4] = (byte) (3 - library[4]); // the ELF class: 1 is of 32 bits, 2 of 64
        Path other = Paths.get(System.getProperty("halvo.test.dir"), "libother.so");
        Files.write(other, library);
        String wrong = loadFailure(other.toString());
        assertTrue(wrong, wrong.contains("The library has the other word size: this VM is of "
                + System.getProperty("sun.arch.data.model") + " bits"));
    }
}
