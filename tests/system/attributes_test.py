"""Whole objects against a real S3 server: what belongs to an object beside its content comes back with it."""
import base64
import concurrent.futures
import datetime
import hashlib
import os
import random
import threading
import unittest
import urllib.parse

import harness

OBJECTS = int(os.environ.get("OBS_ATTRIBUTE_OBJECTS", "5000"))
THREADS = 8
MIB = 1 << 20
CLASSES = ["STANDARD_IA", "REDUCED_REDUNDANCY"]
TYPES = ["text/plain", "text/html; charset=utf-8", "application/json", "application/octet-stream", "image/png",
         "application/x-%s; q=\"a b\"", "x/y"]
EVERYBODY = "http://acs.amazonaws.com/groups/global/AllUsers"
LOCKED = datetime.datetime(2090, 1, 1)


def text(generator, characters, least, most):
    return "".join(generator.choice(characters) for _ in range(generator.randint(least, most)))


def random_request(generator, locked):
    """What a PUT gives an object beside its body, as boto3 takes it."""
    letters = "abcdefghijklmnopqrstuvwxyz0123456789"
    printable = letters + letters.upper() + " !#$%&'()*+,-./:;<=>?@[]^_`{|}~\"\\"

    def value(least, most):
        return text(generator, printable, least, most).strip()

    request = {}
    if generator.random() < 0.8:
        request["ContentType"] = generator.choice(TYPES).replace("%s", text(generator, letters, 1, 9))
    if generator.random() < 0.2:
        request["CacheControl"] = "max-age=%d" % generator.randint(0, 10 ** 6)
    if generator.random() < 0.2:
        request["ContentDisposition"] = 'attachment; filename="%s"' % text(generator, letters + " .-", 1, 40)
    if generator.random() < 0.15:
        request["ContentEncoding"] = generator.choice(["gzip", "br", "identity", "gzip, br"])
    if generator.random() < 0.15:
        request["ContentLanguage"] = generator.choice(["de", "en, de", "zh-Hant"])
    if generator.random() < 0.15:
        request["Expires"] = datetime.datetime(2030, 1, 1) + datetime.timedelta(seconds=generator.randint(0, 10 ** 8))
    if generator.random() < 0.1:
        request["WebsiteRedirectLocation"] = "/" + text(generator, letters + "/", 1, 60)
    if generator.random() < 0.6:
        metadata = {}
        for _ in range(generator.randint(1, 8)):
            # This server stores "_" in names as "-".
            metadata[text(generator, letters + "-.", 1, 20).strip("-.") or "m"] = value(0, 60)
        if generator.random() < 0.1:
            metadata["mime"] = "=?UTF-8?B?w6TDtsO8?= =?UTF-8?Q?=E2=82=AC?="
        if generator.random() < 0.03:
            metadata["long"] = text(generator, letters, 1500, 1700)   # near what services take in all
        request["Metadata"] = metadata
    if generator.random() < 0.25:
        request["StorageClass"] = generator.choice(CLASSES)
    if generator.random() < 0.2:
        tags = {value(1, 30) or "t": value(0, 50) for _ in range(generator.randint(1, 9))}
        request["Tagging"] = urllib.parse.urlencode(tags, quote_via=urllib.parse.quote)
    if generator.random() < 0.05:
        request["ACL"] = generator.choice(["public-read", "authenticated-read", "public-read-write"])
    if locked:
        if generator.random() < 0.8:
            request["ObjectLockMode"] = "GOVERNANCE"
            request["ObjectLockRetainUntilDate"] = LOCKED + datetime.timedelta(days=generator.randint(0, 3000))
        if generator.random() < 0.3:
            request["ObjectLockLegalHoldStatus"] = "ON"
    return request


def part_sizes(generator):
    """Sizes that tools make, from which size and number alone tell the layout."""
    part = generator.choice([5, 8]) * MIB
    return [part] * generator.randint(1, 2) + [generator.randint(1, 300000)]


def odd_part_sizes(generator):
    return [5 * MIB + generator.randint(1, 9999) for _ in range(generator.randint(1, 2))] + \
           [generator.randint(1, 99999)]


class Sample:
    """One object as it was made."""

    def __init__(self, seed, number, bucket):
        generator = random.Random("%d/%d" % (seed, number))
        self.bucket = bucket
        self.key = "d%d/o%05d" % (number % 40, number)
        self.request = random_request(generator, bucket == "locked")
        self.parts = None
        if bucket == "whole" and number % 400 == 7:
            self.parts = part_sizes(generator)
        elif bucket == "whole" and number % 400 == 207:
            self.parts = odd_part_sizes(generator)
        self.odd = number % 400 == 207
        self.size = sum(self.parts) if self.parts else \
            generator.choice([0, 1, generator.randint(2, 3000), generator.randint(2, 3000), generator.randint(0, 60000)])
        self.seed = generator.getrandbits(32)
        self.etag = None

    def body(self):
        return random.Random(self.seed).randbytes(self.size)

    def put(self, client):
        body = self.body()
        if self.parts is None:
            extra = {}
            if self.bucket == "locked":
                extra["ContentMD5"] = base64.b64encode(hashlib.md5(body).digest()).decode()
            self.etag = client.put_object(Bucket=self.bucket, Key=self.key, Body=body, **extra, **self.request)["ETag"]
            return
        request = dict(self.request)
        tags = request.pop("Tagging", None)   # this server forgets those of a multipart upload
        upload = client.create_multipart_upload(Bucket=self.bucket, Key=self.key, **request)["UploadId"]
        done, at = [], 0
        for number, size in enumerate(self.parts, 1):
            etag = client.upload_part(Bucket=self.bucket, Key=self.key, UploadId=upload, PartNumber=number,
                                      Body=body[at:at + size])["ETag"]
            done.append({"PartNumber": number, "ETag": etag})
            at += size
        client.complete_multipart_upload(Bucket=self.bucket, Key=self.key, UploadId=upload,
                                         MultipartUpload={"Parts": done})
        self.etag = client.head_object(Bucket=self.bucket, Key=self.key)["ETag"]
        if tags:
            client.put_object_tagging(Bucket=self.bucket, Key=self.key, Tagging={"TagSet": tag_set(tags)})


def tag_set(encoded):
    return [{"Key": key, "Value": value} for key, value in urllib.parse.parse_qsl(encoded, keep_blank_values=True)]


def grants(answer):
    def name(grantee):
        return grantee["URI"] if "URI" in grantee else \
            "owner" if grantee["ID"] == answer["Owner"]["ID"] else grantee["ID"]
    return sorted((name(grant["Grantee"]), grant["Permission"]) for grant in answer["Grants"])


class Attributes(harness.Scenario):
    @classmethod
    def setUpClass(cls):
        cls.server = harness.Real_Server(storage_classes=" ".join(CLASSES))
        cls.addClassCleanup(cls.server.stop)
        cls.local = threading.local()
        cls.making = threading.Lock()
        cls.clients = []
        cls.addClassCleanup(lambda: [client.close() for client in cls.clients])

    def client(self):
        """One for each thread."""
        if not hasattr(self.local, "client"):
            with self.making:
                self.local.client = self.server.client()
                self.clients.append(self.local.client)
        return self.local.client

    def for_all(self, work, items):
        with concurrent.futures.ThreadPoolExecutor(THREADS) as pool:
            return list(pool.map(work, items))

    def differences(self, sample, bucket):
        """What of the object in `bucket` is not as it was made."""
        client, wanted, found = self.client(), sample.request, []
        answer = client.get_object(Bucket=bucket, Key=sample.key)

        def check(what, expected, seen):
            if expected != seen:
                found.append("%s %s: %r instead of %r" % (sample.key, what, seen, expected))

        body = answer["Body"].read()
        check("body", hashlib.sha256(sample.body()).hexdigest(), hashlib.sha256(body).hexdigest())
        check("Content-Type", wanted.get("ContentType", "binary/octet-stream"), answer["ContentType"])
        for name in ("CacheControl", "ContentDisposition", "ContentEncoding", "ContentLanguage",
                     "WebsiteRedirectLocation", "StorageClass", "ObjectLockMode", "ObjectLockLegalHoldStatus"):
            check(name, wanted.get(name), answer.get(name))
        for name in ("Expires", "ObjectLockRetainUntilDate"):
            seen = answer.get(name)
            check(name, wanted.get(name), seen.replace(tzinfo=None) if seen else None)
        check("metadata", wanted.get("Metadata", {}), answer["Metadata"])
        if sample.odd:
            check("number of parts", sample.etag.split("-")[1], (answer["ETag"] + "-").split("-")[1])
        else:
            check("ETag", sample.etag, answer["ETag"])
        tags = tag_set(wanted.get("Tagging", ""))
        check("number of tags", len(tags),
              int(answer["ResponseMetadata"]["HTTPHeaders"].get("x-amz-tagging-count", "0")) if not sample.parts
              else len(tags))
        if tags:
            seen = client.get_object_tagging(Bucket=bucket, Key=sample.key).get("TagSet", [])
            check("tags", sorted(map(str, tags)), sorted(map(str, seen)))
        if "ACL" in wanted or sample.seed % 50 == 0:
            own = grants(client.get_object_acl(Bucket=bucket, Key=sample.key))
            check("grants", grants(client.get_object_acl(Bucket=sample.bucket, Key=sample.key)), own)
        return found

    def test_random_objects_come_back_with_all_their_attributes(self):
        seed = int(os.environ.get("OBS_SEED", random.SystemRandom().randrange(10 ** 9)))
        print("seed %d (OBS_SEED)" % seed, flush=True)
        client = self.client()
        for bucket in ("whole", "whole-back"):
            client.create_bucket(Bucket=bucket)
        for bucket in ("locked", "locked-back"):
            client.create_bucket(Bucket=bucket, ObjectLockEnabledForBucket=True)
        samples = [Sample(seed, number, "locked" if number % 20 == 3 else "whole") for number in range(OBJECTS)]
        self.for_all(lambda sample: sample.put(self.client()), samples)
        # Grants that no canned access list says.
        own = client.get_object_acl(Bucket="whole", Key=samples[0].key)
        for sample in [one for one in samples if one.bucket == "whole"][::200]:
            sample.request["ACL"] = "of its own"
            client.put_object_acl(Bucket="whole", Key=sample.key, AccessControlPolicy={
                "Owner": own["Owner"],
                "Grants": own["Grants"] + [{"Grantee": {"Type": "Group", "URI": EVERYBODY}, "Permission": "READ_ACP"}]})

        self.server.settle()   # what was just stored would be read again
        self.add_account(self.server)
        self.add_pool()
        outcome = self.backup("/whole/", "/locked/", "--tags", "--acl", "--channels", "2")
        self.assertEqual(("completed", OBJECTS, 0), (outcome["outcome"], outcome["saved"], outcome["incomplete"]),
                         outcome)
        self.assert_readable_elsewhere(self.media(outcome["set"]), {
            ("%s/%s" % (sample.bucket, sample.key)).encode(): sample.body() for sample in samples})
        restored = self.agent("restore", outcome["set"], "--map", "whole=whole-back", "--map", "locked=locked-back",
                              "--json", expect=None).json
        self.assertEqual(("completed", OBJECTS, 0), (restored["outcome"], restored["saved"], restored["incomplete"]),
                         restored["errors"][:10])
        self.assert_account_adds_up(restored)
        differences = sum(self.for_all(lambda sample: self.differences(sample, sample.bucket + "-back"), samples), [])
        self.assertEqual([], differences[:20], "seed %d: %d differences" % (seed, len(differences)))

        # What did not change is known by reference, attributes included, and a change of them alone is noticed.
        changed = samples[11]
        client.copy_object(Bucket=changed.bucket, Key=changed.key, MetadataDirective="REPLACE",
                           CopySource={"Bucket": changed.bucket, "Key": changed.key}, ContentType="now/other",
                           Metadata={"fresh": "yes"})
        second = self.backup("/whole/", "/locked/", "--tags", "--acl")
        self.assertEqual((1, OBJECTS - 1), (second["saved"], second["unchanged"]), second)
        shown = {}
        for set_id in (outcome["set"], second["set"]):
            shown[set_id] = {line["file"]: line["attributes"] for line in
                             self.agent("ls", set_id, "--recursive", "--long", "--json").json_lines}
        now = shown[second["set"]].pop("/whole/" + changed.key)
        self.assertEqual(({"fresh": "yes"}, "now/other"), (now["metadata"], now["headers"]["content-type"]))
        del shown[outcome["set"]]["/whole/" + changed.key]
        self.assertEqual(shown[outcome["set"]], shown[second["set"]])
        self.agent("verify", second["set"])
        self.assert_readable_elsewhere(self.media(second["set"]),
                                       {("%s/%s" % (changed.bucket, changed.key)).encode(): changed.body()})

    def fill_small(self, bucket, **bucket_options):
        """Twenty objects with everything; their keys."""
        client = self.client()
        client.create_bucket(Bucket=bucket, **bucket_options)
        keys = ["k%02d" % number for number in range(20)]
        for key in keys:
            client.put_object(Bucket=bucket, Key=key, Body=key.encode(), ContentType="a/b", StorageClass="STANDARD_IA",
                              Metadata={"name": key}, Tagging="a=1&b=2", ACL="public-read")
        return keys

    def test_operator_may_leave_out_tags_and_access_lists_and_choose_the_class(self):
        keys = self.fill_small("chosen")
        client = self.client()
        client.create_bucket(Bucket="chosen-back")
        self.add_account(self.server)
        self.add_pool()
        set_id = self.backup("/chosen/", "--tags", "--acl")["set"]
        restored = self.agent("restore", set_id, "--map", "chosen=chosen-back", "--no-acl", "--drop-tags",
                              "--storage-class", "REDUCED_REDUNDANCY", "--json").json
        self.assertEqual(("completed", 20), (restored["outcome"], restored["saved"]))
        for key in keys:
            head = client.head_object(Bucket="chosen-back", Key=key)
            self.assertEqual(("a/b", "REDUCED_REDUNDANCY", {"name": key}),
                             (head["ContentType"], head["StorageClass"], head["Metadata"]))
            self.assertEqual([], client.get_object_tagging(Bucket="chosen-back", Key=key).get("TagSet", []))
            self.assertEqual([("owner", "FULL_CONTROL")],
                             grants(client.get_object_acl(Bucket="chosen-back", Key=key)))

    def test_what_the_target_refuses_is_named_for_each_object_and_all_else_arrives(self):
        keys = self.fill_small("refused", ObjectLockEnabledForBucket=True)
        client = self.client()
        for key in keys[:5]:
            client.put_object_retention(Bucket="refused", Key=key,
                                        Retention={"Mode": "GOVERNANCE", "RetainUntilDate": LOCKED})
        client.create_bucket(Bucket="refused-back")
        self.add_account(self.server)
        self.add_pool()
        set_id = self.backup("/refused/", "--tags", "--acl")["set"]
        restored = self.agent("restore", set_id, "--map", "refused=refused-back", "--storage-class", "NO_SUCH_CLASS",
                              "--concurrent", "3", "--json", expect=3).json
        self.assertEqual(("completed with errors", 20, 20, 0, 0),
                         tuple(restored[figure] for figure in ("outcome", "saved", "incomplete", "skipped", "failed")))
        messages = {error["name"]: error["message"] for error in restored["errors"]}
        self.assertEqual({"/refused/" + key for key in keys}, set(messages))
        for key in keys:
            message = messages["/refused/" + key]
            self.assertIn("the storage class 'NO_SUCH_CLASS'", message)
            self.assertEqual(key in keys[:5], "the object lock (GOVERNANCE until 2090-01-01" in message, message)
            self.assertNotIn("tags", message)
            head = client.head_object(Bucket="refused-back", Key=key)
            self.assertEqual(("a/b", {"name": key}, None),
                             (head["ContentType"], head["Metadata"], head.get("StorageClass")))
            self.assertEqual(2, len(client.get_object_tagging(Bucket="refused-back", Key=key)["TagSet"]))
            self.assertEqual(2, len(client.get_object_acl(Bucket="refused-back", Key=key)["Grants"]))
        shown = self.agent("restore", set_id, "/refused/k00", "--map", "refused=refused-back", "--existing",
                           "overwrite", expect=3).stdout
        self.assertIn("1 of the saved ones without all that belongs to them", shown)

    def test_without_the_options_neither_tags_nor_access_lists_are_asked_for(self):
        self.fill_small("unasked")
        self.add_account(self.server)
        self.add_pool()
        outcome = self.backup("/unasked/")
        for line in self.agent("ls", outcome["set"], "/unasked/", "--long", "--json").json_lines:
            # Some services say unasked how many tags there are.
            self.assertEqual({"headers", "metadata", "storage_class", "etag"}, set(line["attributes"]) - {"tag_count"})
        # The probe of the bucket, its listing, and one GET for each object.
        self.assertGreater(20 + 5, outcome["requests"])


if __name__ == "__main__":
    harness.main()
