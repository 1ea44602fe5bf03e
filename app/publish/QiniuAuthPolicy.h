// The photo storage's upload policy and the upload token made from it on the
// device with the storage account's keys. The result screen makes one policy
// with only `scope` (the bucket) when it loads and hands the token to
// QiniuSimpleUploader:
//
//   QiniuAuthPolicy p;
//   p.scope = rd::build::kStorageBucket;
//   QString token = p.makeToken(rd::build::kStorageAccessKey, rd::build::kStorageSecretKey);
#pragma once

#include <QString>

class QiniuAuthPolicy {
 public:
  QString scope;             // "scope": bucket[:key]
  QString callbackUrl;       // "callbackUrl"
  QString callbackBodyType;  // "callbackBodyType"
  QString customer;          // "customer"
  qint64 expires = 0;        // lifetime in seconds; below 1 means one hour
  qint64 escape = 0;         // "escape", sent when not 0

  // The policy as compact JSON: the set texts, "deadline" (now + lifetime, in
  // whole seconds since 1970) and "escape" when not 0.
  QString marshal() const;
  QString marshal(qint64 nowSecs) const;

  // "ACCESSKEY:DIGEST:POLICY": POLICY is the URL-safe Base64 (padded) of the
  // marshalled policy, DIGEST the URL-safe Base64 of its HMAC-SHA1 under the
  // secret key.
  QString makeToken(const QString& accessKey, const QString& secretKey) const;
  QString makeToken(const QString& accessKey, const QString& secretKey, qint64 nowSecs) const;
};
