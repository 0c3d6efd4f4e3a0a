"""What both bucket tools need: clients, listings that survive any key, and a pool of threads."""

import argparse
import concurrent.futures
import sys
import threading
import urllib.parse

import boto3
from botocore import handlers
from botocore.config import Config


def add_access_arguments(parser, suffix="", required=True):
    """The arguments that say where a bucket is. With a suffix: those of a second service, all optional."""
    dash = "-" + suffix if suffix else ""
    parser.add_argument("--endpoint" + dash, required=required, help="http://HOST:PORT or https://...")
    parser.add_argument("--access-key" + dash, required=required)
    parser.add_argument("--secret-key" + dash, required=required)
    parser.add_argument("--ca-file" + dash, help="PEM file of the CA, for https")


class Access:
    """One client per thread: boto3's clients share their pool badly under load."""

    def __init__(self, endpoint, access_key, secret_key, ca_file=None):
        self._where = (endpoint, access_key, secret_key, ca_file)
        self._local = threading.local()

    def client(self):
        if not hasattr(self._local, "client"):
            endpoint, access_key, secret_key, ca_file = self._where
            with _making:
                client = boto3.session.Session().client(
                    "s3",
                    endpoint_url=endpoint,
                    aws_access_key_id=access_key,
                    aws_secret_access_key=secret_key,
                    region_name="us-east-1",
                    verify=ca_file,
                    config=Config(signature_version="s3v4", s3={"addressing_style": "path"},
                                  retries={"max_attempts": 3}),
                )
            # boto3 would ask for the encoding by itself and decode strictly as UTF-8; list_objects does both.
            events = client.meta.events
            events.unregister("before-parameter-build.s3.ListObjects", handlers.set_list_objects_encoding_type_url)
            events.unregister("after-call.s3.ListObjects", handlers.decode_list_object)
            self._local.client = client
        return self._local.client


_making = threading.Lock()


def list_objects(client, bucket):
    """Yields (key, size) in the service's order. The keys are asked for percent-encoded: a control character would
    break the page otherwise."""
    marker = ""
    while True:
        page = client.list_objects(Bucket=bucket, Marker=marker, EncodingType="url")
        encoded = page.get("EncodingType") == "url"
        contents = page.get("Contents", [])
        for entry in contents:
            key = entry["Key"]
            yield (urllib.parse.unquote_plus(key, errors="surrogateescape") if encoded else key), entry["Size"]
        if not page.get("IsTruncated"):
            return
        last = contents[-1]["Key"] if contents else ""
        following = urllib.parse.unquote_plus(last, errors="surrogateescape") if encoded else last
        if following == marker or not contents:
            sys.exit("the listing of %s does not advance behind %r" % (bucket, marker))
        marker = following


def for_all(work, items, threads):
    """Calls work(item) for all on a number of threads and yields the results as they come. The first exception ends
    it all. Only a few items are taken ahead of the threads."""
    with concurrent.futures.ThreadPoolExecutor(threads) as pool:
        waiting = set()
        for item in items:
            waiting.add(pool.submit(work, item))
            if len(waiting) >= threads * 4:
                done, waiting = concurrent.futures.wait(waiting, return_when=concurrent.futures.FIRST_COMPLETED)
                for one in done:
                    yield one.result()
        for one in concurrent.futures.as_completed(waiting):
            yield one.result()


def size_argument(text):
    """A number of bytes, with K, M or G for the powers of 1024."""
    factor = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}.get(text[-1:].upper())
    try:
        return int(text[:-1]) * factor if factor else int(text)
    except ValueError:
        raise argparse.ArgumentTypeError("not a size: %s" % text)
