#include "http/httpstore.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "net/sockets.h"

namespace gateway {

namespace {

class ServeGet : public testing::Test {
protected:
    ServeGet() {
        char pattern[] = "/tmp/httpstore.XXXXXX";
        folder = std::string(::mkdtemp(pattern)) + "/";
        store.directory = folder;
    }
    ~ServeGet() override { std::filesystem::remove_all(folder); }

    void addFile(const std::string& url, const std::string& name, const std::string& content) {
        std::ofstream(folder + name, std::ios::binary) << content;
        store.files[url] = name;
    }
    static HTTPMessage request(const std::string& path, const std::string& headers = "") {
        return HTTPMessage("GET " + path + " HTTP/1.1\r\n" + headers + "\r\n");
    }

    std::string folder;
    HTTPStore store;
};

TEST_F(ServeGet, SendsAFileWithItsHeadersInOrder) {
    addFile("/logo16.gif", "logo16.gif", "GIF89a");
    const HTTPMessage response = serveGet(store, request("/logo16.gif"), "");
    EXPECT_EQ(response.title, "HTTP/1.1 200 OK");
    EXPECT_EQ(std::vector<std::string>(response.names.begin(), response.names.end()),
              (std::vector<std::string>{"CONTENT-TYPE", "CONTENT-LENGTH", "DATE", "SERVER", "CONNECTION"}));
    EXPECT_EQ(response.get("CONTENT-TYPE"), "image/gif");
    EXPECT_EQ(response.get("CONTENT-LENGTH"), "6");
    EXPECT_EQ(response.get("SERVER"), serverString);
    EXPECT_EQ(response.get("CONNECTION"), "close");
    EXPECT_EQ(response.body, "GIF89a");
}

TEST_F(ServeGet, AnswersALanguageFirstWhenTheRequestNamesAny) {
    addFile("/a.xml", "a.xml", "<a/>");
    const HTTPMessage response = serveGet(store, request("/a.xml", "Accept-Language: de\r\n"), "");
    ASSERT_FALSE(response.names.empty());
    EXPECT_EQ(response.names.front(), "CONTENT-LANGUAGE");
    EXPECT_EQ(response.get("CONTENT-LANGUAGE"), "en-us");
}

TEST_F(ServeGet, SendsGivenContentAsXmlWithoutLookingForAFile) {
    const HTTPMessage response = serveGet(store, request("/gateway.xml"), "<root/>");
    EXPECT_EQ(response.title, "HTTP/1.1 200 OK");
    EXPECT_EQ(response.get("CONTENT-TYPE"), "text/xml");
    EXPECT_EQ(response.body, "<root/>");
}

TEST_F(ServeGet, CallsEveryFileXmlButGifs) {
    addFile("/a", "a.gif.bin", "x");
    addFile("/b", "b", "x");
    addFile("/c", "c.GIF", "x");
    for (const char* path : {"/a", "/b", "/c"})
        EXPECT_EQ(serveGet(store, request(path), "").get("CONTENT-TYPE"), "text/xml") << path;
}

TEST_F(ServeGet, CallsAFileByItsOwnNameWhateverItsPath) {
    addFile("/icon", "icon.gif", "x");
    addFile("/icon.gif", "icon.xml", "x");
    EXPECT_EQ(serveGet(store, request("/icon"), "").get("CONTENT-TYPE"), "image/gif");
    EXPECT_EQ(serveGet(store, request("/icon.gif"), "").get("CONTENT-TYPE"), "text/xml");
}

TEST_F(ServeGet, CutsAFileAt16384Bytes) {
    const std::string large(20000, 'x');
    addFile("/large.xml", "large.xml", large);
    const HTTPMessage response = serveGet(store, request("/large.xml"), "");
    EXPECT_EQ(response.get("CONTENT-LENGTH"), "16384");
    EXPECT_EQ(response.body, large.substr(0, 16384));
}

TEST_F(ServeGet, AnswersAnUnknownPathWithABare404AndNoLogLine) {
    testing::internal::CaptureStdout();
    const HTTPMessage response = serveGet(store, request("/unknown"), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(response.toString(), "HTTP/1.1 404 Not Found\r\n\r\n");
}

TEST_F(ServeGet, LogsAFileThatCannotBeOpened) {
    store.files["/gone.xml"] = "gone.xml";
    testing::internal::CaptureStdout();
    const HTTPMessage response = serveGet(store, request("/gone.xml"), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "open file " + folder + "gone.xml: No such file or directory\n");
    EXPECT_EQ(response.toString(), "HTTP/1.1 404 Not Found\r\n\r\n");
}

TEST_F(ServeGet, LogsAFileThatCannotBeRead) {
    ASSERT_EQ(::mkdir((folder + "folder.xml").c_str(), 0755), 0);
    store.files["/folder.xml"] = "folder.xml";
    testing::internal::CaptureStdout();
    const HTTPMessage response = serveGet(store, request("/folder.xml"), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "read file " + folder + "folder.xml: Is a directory\n");
    EXPECT_EQ(response.title, "HTTP/1.1 404 Not Found");
}

}  // namespace

}  // namespace gateway
