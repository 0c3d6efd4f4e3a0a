"""A client for the tests that takes keys as bytes, as no library does: signs, sends and reads each request itself."""
import datetime
import hashlib
import hmac
import html
import http.client
import re
import threading
import urllib.parse


def quoted(data):
    return urllib.parse.quote(data, safe="/-_.~")


class Raw_Client:
    """One connection per thread."""

    def __init__(self, server):
        self.host = urllib.parse.urlsplit(server.endpoint).netloc
        self.access_key, self.secret_key = server.access_key, server.secret_key
        self.local = threading.local()

    def request(self, method, bucket, key=b"", query=(), body=b"", headers=()):
        """Status, headers and body of the answer."""
        path = "/" + bucket + ("/" + quoted(key) if key else "")
        text = "&".join("%s=%s" % (urllib.parse.quote(name, safe="-_.~"), urllib.parse.quote(value, safe="-_.~"))
                        for name, value in sorted(query))
        now = datetime.datetime.now(datetime.timezone.utc).strftime("%Y%m%dT%H%M%SZ")
        digest = hashlib.sha256(body).hexdigest()
        signed = {"host": self.host, "x-amz-content-sha256": digest, "x-amz-date": now}
        names = ";".join(sorted(signed))
        canonical = "\n".join([method, path, text, "".join("%s:%s\n" % item for item in sorted(signed.items())), names,
                               digest])
        scope = "%s/us-east-1/s3/aws4_request" % now[:8]
        secret = ("AWS4" + self.secret_key).encode()
        for part in scope.split("/"):
            secret = hmac.new(secret, part.encode(), hashlib.sha256).digest()
        to_sign = "\n".join(["AWS4-HMAC-SHA256", now, scope, hashlib.sha256(canonical.encode()).hexdigest()])
        signature = hmac.new(secret, to_sign.encode(), hashlib.sha256).hexdigest()
        sent = dict(signed, authorization="AWS4-HMAC-SHA256 Credential=%s/%s, SignedHeaders=%s, Signature=%s"
                    % (self.access_key, scope, names, signature))
        sent.update(headers)
        for again in (True, False):
            if not hasattr(self.local, "connection"):
                self.local.connection = http.client.HTTPConnection(self.host, timeout=60)
            try:
                self.local.connection.request(method, path + ("?" + text if text else ""), body, sent)
                answer = self.local.connection.getresponse()
                return answer.status, answer.headers, answer.read()
            except (http.client.HTTPException, ConnectionError):
                # The server has let the idle connection go.
                self.local.connection.close()
                del self.local.connection
                if not again:
                    raise

    def put(self, bucket, key, body):
        return self.request("PUT", bucket, key, body=body)[0] == 200

    def get(self, bucket, key):
        """None where there is no such object."""
        status, _, body = self.request("GET", bucket, key)
        return body if status == 200 else None

    def delete(self, bucket, key):
        return self.request("DELETE", bucket, key)[0] == 204

    def keys(self, bucket):
        found, marker = [], b""
        while True:
            status, _, page = self.request("GET", bucket, query=[("encoding-type", "url"), ("marker", marker)])
            if status != 200:
                raise RuntimeError("the bucket %s cannot be listed: %d %r" % (bucket, status, page[:300]))
            keys = [urllib.parse.unquote_to_bytes(html.unescape(key.decode()).replace("+", " "))
                    for key in re.findall(rb"<Contents><Key>(.*?)</Key>", page, re.S)]
            found += keys
            if b"<IsTruncated>true</IsTruncated>" not in page:
                return found
            marker = keys[-1]
