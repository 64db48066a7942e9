#include <gtest/gtest.h>

#include "http/HTTPStore.h"
#include "http/Server.h"
#include "support/Descriptors.h"
#include "support/Logged.h"
#include "support/TempDir.h"

using lm::test::openDescriptors;

/// A store over its own directory.
class HTTPStoreTest : public testing::Test {
 protected:
  HTTPMessage get(const std::string& url) {
    return store.get(HTTPMessage("GET " + url + " HTTP/1.1\r\n\r\n"), "");
  }

  /// The reply, and what was logged meanwhile.
  HTTPMessage getAndLog(const std::string& url, std::string& log) {
    HTTPMessage reply;
    log = lm::test::logged([&] { reply = get(url); });
    return reply;
  }

  const lm::test::TempDir directory;
  HTTPStore store{directory.file("")};
};

// Promise [document-fields]: A reply with a document has the fields `CONTENT-TYPE`,
// `CONTENT-LENGTH`, `DATE`, `SERVER` and `CONNECTION: close`, in this order.
TEST_F(HTTPStoreTest, ServesAFile) {
  directory.write("osinfo.xml", "<scpd></scpd>");
  store.addUrl("/osinfo.xml", "osinfo.xml");
  const HTTPMessage reply = get("/osinfo.xml");
  EXPECT_EQ(reply.get(),
            "HTTP/1.1 200 OK\r\nCONTENT-TYPE: text/xml\r\nCONTENT-LENGTH: 13\r\nDATE: " +
                reply.getField("DATE") + "\r\nSERVER: " + SERVER_STRING +
                "\r\nCONNECTION: close\r\n\r\n<scpd></scpd>");
  EXPECT_EQ(reply.getField("DATE").size(), 29U);
}

// Promise: `CONTENT-LANGUAGE: en-us` comes first when the request has an `ACCEPT-LANGUAGE`,
// whatever that says, and not otherwise.
TEST_F(HTTPStoreTest, SendsItsLanguageWhenTheRequestNamesOne) {
  directory.write("a.xml", "1");
  store.addUrl("/a", "a.xml");
  const HTTPMessage request("GET /a HTTP/1.1\r\nAccept-Language:\r\n\r\n");
  const HTTPMessage reply = store.get(request, "");
  EXPECT_EQ(reply.fieldNames.front(), "CONTENT-LANGUAGE");
  EXPECT_EQ(reply.fieldValues.front(), "en-us");
  EXPECT_EQ(reply.fieldNames.size(), 6U);
}

// Promise: The description is `text/xml`, and needs no file.
TEST_F(HTTPStoreTest, ServesContentInsteadOfAFile) {
  const HTTPMessage reply = store.get(HTTPMessage("GET /not-registered HTTP/1.1\r\n\r\n"), "<a/>");
  EXPECT_EQ(reply.startLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(reply.getField("CONTENT-TYPE"), "text/xml");
  EXPECT_EQ(reply.getField("CONTENT-LENGTH"), "4");
  EXPECT_EQ(reply.body, "<a/>");
}

// Promise: A file whose name ends in `.gif`, or is `gif`, is `image/gif`; every other one is
// `text/xml`.
TEST_F(HTTPStoreTest, RecognisesImagesByTheFileName) {
  const struct {
    const char* file;
    const char* type;
  } files[] = {
      {"logo16.gif", "image/gif"}, {"a.xml.gif", "image/gif"}, {"gif", "image/gif"},
      {"a.GIF", "text/xml"},       {"a.gif.xml", "text/xml"},  {"agif", "text/xml"},
      {"a.gif.", "text/xml"},
  };
  for (const auto& [file, type] : files) {
    directory.write(file, "GIF89a");
    store.addUrl("/url.xml", file);
    EXPECT_EQ(get("/url.xml").getField("CONTENT-TYPE"), type) << file;
  }
}

// Promise: Icons and service descriptions are served byte for byte as the files under
// `/lumen/etc/upnp/` have them.
TEST_F(HTTPStoreTest, ServesBytesAsTheyAre) {
  const std::string bytes("\0\r\n\xff", 4);
  directory.write("logo16.gif", bytes);
  store.addUrl("/logo16.gif", "logo16.gif");
  EXPECT_EQ(get("/logo16.gif").body, bytes);
}

// Promise: A file is served under the URL that was registered for it, the last one of several, and
// no other file can be requested.
TEST_F(HTTPStoreTest, ServesTheFileThatWasRegisteredLast) {
  directory.write("a", "1");
  directory.write("b", "2");
  store.addUrl("/x", "a");
  store.addUrl("/x", "b");
  EXPECT_EQ(get("/x").body, "2");
}

// Promise: An empty file is served as one of 0 bytes.
TEST_F(HTTPStoreTest, ServesAnEmptyFile) {
  directory.write("a", "");
  store.addUrl("/a", "a");
  const HTTPMessage reply = get("/a");
  EXPECT_EQ(reply.startLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(reply.getField("CONTENT-LENGTH"), "0");
}

// Promise [file-size]: Of a file 16384 bytes are served, and `CONTENT-LENGTH` says what is served.
TEST_F(HTTPStoreTest, CutsALargeFile) {
  directory.write("whole", std::string(16384, 'x'));
  directory.write("cut", std::string(16385, 'x'));
  store.addUrl("/whole", "whole");
  store.addUrl("/cut", "cut");
  EXPECT_EQ(get("/whole").body.size(), 16384U);
  EXPECT_EQ(get("/cut").body.size(), 16384U);
  EXPECT_EQ(get("/cut").getField("CONTENT-LENGTH"), "16384");
}

// Promise [unknown-url]: A URL that is not registered is answered with a bare `404 Not Found` and
// no line in the log.
// Promise [url-exact]: URLs are compared byte for byte: another case, a query string, an absolute
// URL and a path with `..` are not found.
TEST_F(HTTPStoreTest, DoesNotFindWhatIsNotRegistered) {
  directory.write("a.xml", "1");
  store.addUrl("/a.xml", "a.xml");
  for (const char* url : {"/b.xml", "a.xml", "/a.xml?x=1", "/A.xml", "/../a.xml", "/a.xml/", "",
                          "http://10.0.0.1:2828/a.xml"}) {
    std::string log;
    EXPECT_EQ(getAndLog(url, log).get(), "HTTP/1.1 404 Not Found\r\n\r\n") << url;
    EXPECT_EQ(log, "") << url;
  }
}

// Promise: A file that cannot be opened is a bare `404 Not Found` and the line `open file `, its
// path, `: ` and the error text.
TEST_F(HTTPStoreTest, LogsAFileThatCannotBeOpened) {
  store.addUrl("/a.xml", "a.xml");
  std::string log;
  EXPECT_EQ(getAndLog("/a.xml", log).get(), "HTTP/1.1 404 Not Found\r\n\r\n");
  EXPECT_EQ(log, "open file " + directory.file("a.xml") + ": No such file or directory\n");
}

// Promise: A file that cannot be read is a bare `404 Not Found` and the line `read file `, its
// path, `: ` and the error text.
TEST_F(HTTPStoreTest, LogsAFileThatCannotBeReadAndClosesIt) {
  directory.makeDirectory("a.xml");
  store.addUrl("/a.xml", "a.xml");
  const size_t before = openDescriptors();
  std::string log;
  EXPECT_EQ(getAndLog("/a.xml", log).get(), "HTTP/1.1 404 Not Found\r\n\r\n");
  EXPECT_EQ(log, "read file " + directory.file("a.xml") + ": Is a directory\n");
  EXPECT_EQ(openDescriptors(), before);
}
