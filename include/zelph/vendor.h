/*
 * The middleware's own PKCS#11 extensions (CX values), and the few standard
 * values that the distribution's pkcs11.h lacks.
 */
#ifndef ZELPH_VENDOR_H
#define ZELPH_VENDOR_H

#include <p11-kit/pkcs11.h>

/* Return values. CXR_CERT_NOT_TRUSTED lies apart from the others on purpose. */
#define CXR_CONTAINER_INVALID (0x80000064UL)
#define CXR_CONTAINER_EXISTS (0x80000065UL)
#define CXR_NEEDS_REMOUNT (0x80000068UL)
#define CXR_CERT_NOT_TRUSTED (0x82000000UL)

/* Attribute types. */
#define CXA_CONTAINER_NAME (0x80000064UL)
#define CXA_CONTAINER_KEYSPEC (0x80000065UL)
#define CXA_REQUIRES_PARTIAL_HASH (0x80000067UL)
#define CXA_VSLOT (0x80000068UL)
#define CXA_NO_PIN_CACHE (0x80000069UL)
#define CXA_PIN_SESSION_CACHE_ENABLE (0x8000006BUL)
#define CXA_PROFILE_INDICATION (0x8000006CUL)
#define CXA_HAS_PRIVATE_KEY (0x8000006EUL)
#define CXA_TECH_DATA (0x8000006FUL)
#define CXA_APP_AID (0x80000070UL)
#define CXA_CPLC_DATA (0x80000071UL)
#define CXA_CARD_CONTAINER (0x80000073UL)
#define CXA_ACTIVATE_CONTAINER_COUNT (0x80000075UL)

/* Object classes. */
#define CXO_CONTAINER (0x80000064UL)

/* Key specs of a container. */
#define CXKEYSPEC_KEYEXCHANGE (1UL)
#define CXKEYSPEC_SIGNATURE (2UL)

/* Card container kinds. */
#define CXC_NONE (0x80000000UL)
#define CXC_AUTH (0x80000001UL)
#define CXC_SIGN (0x80000002UL)
#define CXC_CONF (0x80000003UL)
#define CXC_MPP (0x80000004UL)
#define CXC_MPP_RGS (0x80000005UL)
#define CXC_WINLOGON (0x80000006UL)

/* Standard values under the names of the PKCS#11 text that p11-kit spells
 * differently or leaves out. */
#ifndef CKA_SUBPRIME_BITS
#define CKA_SUBPRIME_BITS CKA_SUB_PRIME_BITS
#endif
#ifndef CKF_EC_F_2M
#define CKF_EC_F_2M (1UL << 21)
#endif
#ifndef CKF_EC_ECPARAMETERS
#define CKF_EC_ECPARAMETERS (1UL << 22)
#endif

#endif /* ZELPH_VENDOR_H */
